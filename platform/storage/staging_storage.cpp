#include "platform/storage/staging_storage.h"

#include <algorithm>
#include <cstring>

namespace Platform {

std::uint64_t StagingStorage::read(std::uint64_t index, std::uint64_t count, void* buffer)
{
    const std::uint64_t done = base_->read(index, count, buffer);
    const std::size_t size = elementSize();
    auto* bytes = static_cast<std::uint8_t*>(buffer);
    for (auto it = pages_.lower_bound(index / kPageSectors); it != pages_.end(); ++it) {
        const std::uint64_t first = it->first * kPageSectors;
        if (first >= index + done)
            break;
        for (std::uint64_t i = 0; i < kPageSectors; ++i) {
            const std::uint64_t sector = first + i;
            if (it->second.staged[i] && sector >= index && sector < index + done)
                std::memcpy(bytes + (sector - index) * size, it->second.bytes + i * size, size);
        }
    }
    return done;
}

std::uint8_t* StagingStorage::allocatePage()
{
    constexpr std::size_t kSlabPages = 128;
    const std::size_t pageBytes = kPageSectors * elementSize();
    if (slabs_.empty() || slabUsed_ == kSlabPages) {
        slabs_.push_back(std::make_unique_for_overwrite<std::uint8_t[]>(kSlabPages * pageBytes));
        slabUsed_ = 0;
    }
    return slabs_.back().get() + pageBytes * slabUsed_++;
}

std::uint64_t StagingStorage::write(std::uint64_t index, std::uint64_t count, const void* buffer)
{
    if (index >= elementCount())
        return 0;
    count = std::min(count, elementCount() - index);
    ++writeCalls_;
    const std::size_t size = elementSize();
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t sector = index + i;
        Page& page = pages_[sector / kPageSectors];
        if (!page.bytes)
            page.bytes = allocatePage();
        std::memcpy(page.bytes + (sector % kPageSectors) * size, bytes + i * size, size);
        page.staged.set(sector % kPageSectors);
    }
    return count;
}

std::size_t StagingStorage::stagedSectors() const
{
    std::size_t count = 0;
    for (const auto& [index, page] : pages_)
        count += page.staged.count();
    return count;
}

// Writes the staged sectors in [from, to) outside [skipFirst, skipEnd), one write per run of
// consecutive sectors.
bool StagingStorage::commitRange(std::uint64_t from, std::uint64_t to, std::uint64_t skipFirst, std::uint64_t skipEnd)
{
    constexpr std::size_t kMaxRun = 1 << 20;
    const std::size_t size = elementSize();
    std::vector<std::uint8_t> run;
    run.reserve(kMaxRun);
    std::uint64_t runStart = 0;
    const auto flushRun = [&] {
        const std::uint64_t count = run.size() / size;
        const bool ok = count == 0 || base_->write(runStart, count, run.data()) == count;
        run.clear();
        return ok;
    };
    for (const auto& [index, page] : pages_) {
        for (std::uint64_t i = 0; i < kPageSectors; ++i) {
            const std::uint64_t sector = index * kPageSectors + i;
            const bool wanted =
                page.staged[i] && sector >= from && sector < to && !(sector >= skipFirst && sector < skipEnd);
            const bool runEnds = !run.empty() && (sector != runStart + run.size() / size || run.size() >= kMaxRun);
            if (!wanted || runEnds) {
                if (!flushRun())
                    return false;
            }
            if (!wanted)
                continue;
            if (run.empty())
                runStart = sector;
            run.insert(run.end(), page.bytes + i * size, page.bytes + (i + 1) * size);
        }
    }
    return flushRun();
}

bool StagingStorage::commit(std::uint64_t lastFirst, std::uint64_t lastEnd)
{
    if (!commitRange(0, UINT64_MAX, lastFirst, lastEnd) || !commitRange(lastFirst, lastEnd, 0, 0))
        return false;
    discard();
    return base_->flush();
}

void StagingStorage::discard()
{
    pages_.clear();
    slabs_.clear();
    slabUsed_ = 0;
}

} // namespace Platform
