#include "platform/storage/read_once_storage.h"

#include "platform/core/error.h"

#include <algorithm>
#include <cstring>

namespace Platform {

bool ReadOnceStorage::fill(std::uint64_t index, std::uint64_t count)
{
    const std::size_t size = elementSize();
    std::vector<std::uint8_t> run(std::size_t(count) * size);
    if (base_->read(index, count, run.data()) != count)
        return false;
    for (std::uint64_t i = 0; i < count; ++i)
        sectors_.try_emplace(index + i, run.begin() + std::ptrdiff_t(i * size),
                             run.begin() + std::ptrdiff_t((i + 1) * size));
    return true;
}

std::uint64_t ReadOnceStorage::read(std::uint64_t index, std::uint64_t count, void* buffer)
{
    if (index >= elementCount())
        return 0;
    count = std::min(count, elementCount() - index);
    const std::uint64_t end = index + count;
    std::uint64_t unseen = 0;
    for (std::uint64_t sector = index; sector < end; ++sector)
        unseen += !sectors_.contains(sector);
    // A read that would outgrow the bound passes by.
    if (sectors_.size() + unseen > maxSectors_)
        return base_->read(index, count, buffer);
    // Each run of sectors not seen yet, read in one go.
    for (std::uint64_t sector = index; sector < end;) {
        if (sectors_.contains(sector)) {
            ++sector;
            continue;
        }
        std::uint64_t runEnd = sector + 1;
        while (runEnd < end && !sectors_.contains(runEnd))
            ++runEnd;
        if (!fill(sector, runEnd - sector))
            return 0;
        sector = runEnd;
    }
    auto* out = static_cast<std::uint8_t*>(buffer);
    for (std::uint64_t i = 0; i < count; ++i)
        std::memcpy(out + i * elementSize(), sectors_.at(index + i).data(), elementSize());
    return count;
}

std::uint64_t ReadOnceStorage::write(std::uint64_t, std::uint64_t, const void*)
{
    Error::set(Error::ReadOnly);
    return 0;
}

} // namespace Platform
