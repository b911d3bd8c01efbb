#include "platform/storage/dry_run_overlay.h"

#include <algorithm>

namespace Platform {

bool DryRunOverlay::record(const Run& run, std::string&)
{
    pending_.push_back({run.first, run.count});
    return true;
}

std::vector<SectorRange> DryRunOverlay::take()
{
    // A write-back visits its runs in ascending order; several write-backs of one step need not.
    std::sort(pending_.begin(), pending_.end(),
              [](const SectorRange& a, const SectorRange& b) { return a.first < b.first; });
    std::vector<SectorRange> joined;
    for (const SectorRange& range : pending_) {
        if (!joined.empty() && joined.back().first + joined.back().count >= range.first) {
            auto& last = joined.back();
            last.count = std::max(last.first + last.count, range.first + range.count) - last.first;
        } else {
            joined.push_back(range);
        }
    }
    pending_.clear();
    return joined;
}

std::uint64_t sectorCount(const std::vector<SectorRange>& ranges)
{
    std::uint64_t count = 0;
    for (const SectorRange& range : ranges)
        count += range.count;
    return count;
}

} // namespace Platform
