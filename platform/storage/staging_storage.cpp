#include "platform/storage/staging_storage.h"

#include <algorithm>
#include <cstring>

namespace Platform {

std::uint64_t StagingStorage::read(std::uint64_t index, std::uint64_t count, void* buffer)
{
    const std::uint64_t done = base_->read(index, count, buffer);
    const std::size_t size = elementSize();
    auto* bytes = static_cast<std::uint8_t*>(buffer);
    for (auto it = staged_.lower_bound(index); it != staged_.end() && it->first < index + done; ++it)
        std::memcpy(bytes + (it->first - index) * size, it->second.data(), size);
    return done;
}

std::uint64_t StagingStorage::write(std::uint64_t index, std::uint64_t count, const void* buffer)
{
    if (index >= elementCount())
        return 0;
    count = std::min(count, elementCount() - index);
    const std::size_t size = elementSize();
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    for (std::uint64_t i = 0; i < count; ++i)
        staged_[index + i].assign(bytes + i * size, bytes + (i + 1) * size);
    return count;
}

bool StagingStorage::writeOne(std::uint64_t sector, const std::vector<std::uint8_t>& bytes)
{
    std::vector<std::uint8_t> current(bytes.size());
    if (base_->read(sector, 1, current.data()) == 1 && current == bytes)
        return true;
    return base_->write(sector, 1, bytes.data()) == 1;
}

bool StagingStorage::commit(std::uint64_t lastFirst, std::uint64_t lastEnd)
{
    for (const auto& [sector, bytes] : staged_)
        if ((sector < lastFirst || sector >= lastEnd) && !writeOne(sector, bytes))
            return false;
    for (auto it = staged_.lower_bound(lastFirst); it != staged_.end() && it->first < lastEnd; ++it)
        if (!writeOne(it->first, it->second))
            return false;
    staged_.clear();
    return base_->flush();
}

} // namespace Platform
