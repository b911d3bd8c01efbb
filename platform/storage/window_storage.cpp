#include "platform/storage/window_storage.h"

namespace Platform {

Ref<WindowStorage> WindowStorage::create(Ref<Interfaces::Storage> base, std::uint64_t first, std::uint64_t count)
{
    if (!base || first > base->elementCount() || count > base->elementCount() - first)
        return {};
    return makeRef<WindowStorage>(std::move(base), first, count);
}

std::uint64_t WindowStorage::read(std::uint64_t index, std::uint64_t count, void* buffer)
{
    count = clamp(index, count);
    return count ? base_->read(first_ + index, count, buffer) : 0;
}

std::uint64_t WindowStorage::write(std::uint64_t index, std::uint64_t count, const void* buffer)
{
    count = clamp(index, count);
    return count ? base_->write(first_ + index, count, buffer) : 0;
}

} // namespace Platform
