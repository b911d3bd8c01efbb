#include "platform/storage/undo_storage.h"

#include <algorithm>
#include <cstring>

namespace Platform {

// Keeps the old contents of the sectors of [index, index + count) not kept yet, read in one go.
bool UndoStorage::save(std::uint64_t index, std::uint64_t count)
{
    std::uint64_t first = index;
    while (first < index + count && saved_.contains(first))
        ++first;
    if (first == index + count)
        return true;
    std::uint64_t last = index + count;
    while (last > first && saved_.contains(last - 1))
        --last;
    const std::size_t size = elementSize();
    Saved run{first, last - first, std::vector<std::uint8_t>(std::size_t(last - first) * size)};
    if (base_->read(first, run.count, run.bytes.data()) != run.count)
        return false;
    // Sectors inside the run that were kept earlier keep their older contents: restoring the
    // runs newest first puts those back last.
    for (std::uint64_t sector = first; sector < last; ++sector)
        saved_.insert(sector);
    runs_.push_back(std::move(run));
    return true;
}

std::uint64_t UndoStorage::write(std::uint64_t index, std::uint64_t count, const void* buffer)
{
    if (index >= elementCount())
        return 0;
    count = std::min(count, elementCount() - index);
    if (!save(index, count))
        return 0;
    return base_->write(index, count, buffer);
}

UndoStorage::Outcome UndoStorage::run(const std::function<bool()>& change)
{
    keep();
    if (change()) {
        keep();
        return Outcome::Done;
    }
    if (savedSectors() == 0)
        return Outcome::NothingWritten;
    return rollback() ? Outcome::PutBack : Outcome::NotAllPutBack;
}

bool UndoStorage::rollback()
{
    bool restored = true;
    for (auto run = runs_.rbegin(); run != runs_.rend(); ++run)
        restored = base_->write(run->index, run->count, run->bytes.data()) == run->count && restored;
    restored = base_->flush() && restored;
    keep();
    return restored;
}

void UndoStorage::keep()
{
    runs_.clear();
    saved_.clear();
}

} // namespace Platform
