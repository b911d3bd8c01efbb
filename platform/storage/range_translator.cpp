#include "platform/storage/area_translator.h"

#include <algorithm>

namespace Platform {

Ref<RangeTranslator> RangeTranslator::create(std::vector<Range> ranges)
{
    std::erase_if(ranges, [](const Range& range) { return range.count == 0; });
    std::sort(ranges.begin(), ranges.end(),
              [](const Range& a, const Range& b) { return a.sourceStart < b.sourceStart; });
    for (std::size_t i = 1; i < ranges.size(); ++i)
        if (ranges[i - 1].sourceStart + ranges[i - 1].count > ranges[i].sourceStart)
            return {};
    return makeRef<RangeTranslator>(std::move(ranges));
}

std::optional<std::vector<Area>> RangeTranslator::translate(const Area& source) const
{
    std::vector<Area> target;
    std::uint64_t sector = source.start;
    std::uint64_t left = source.count;
    while (left > 0) {
        // The last range that starts at or before the sector.
        auto range = std::upper_bound(ranges_.begin(), ranges_.end(), sector,
                                      [](std::uint64_t s, const Range& r) { return s < r.sourceStart; });
        if (range == ranges_.begin())
            return std::nullopt;
        --range;
        const std::uint64_t into = sector - range->sourceStart;
        if (into >= range->count)
            return std::nullopt;
        const std::uint64_t run = std::min(left, range->count - into);
        appendArea(target, {range->targetStart + into, run});
        sector += run;
        left -= run;
    }
    return target;
}

} // namespace Platform
