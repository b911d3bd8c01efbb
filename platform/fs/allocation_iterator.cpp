#include "platform/fs/allocation_iterator.h"

#include <algorithm>

namespace Platform {

Ref<AllocationIterator> AllocationIterator::create(File& file)
{
    auto areas = file.allocation();
    if (!areas)
        return {};
    return makeRef<AllocationIterator>(std::move(*areas));
}

std::size_t AllocationIterator::next(Area* slots, std::size_t count)
{
    const std::size_t handed = std::min(count, areas_.size() - position_);
    std::copy_n(areas_.begin() + std::ptrdiff_t(position_), handed, slots);
    position_ += handed;
    return handed;
}

} // namespace Platform
