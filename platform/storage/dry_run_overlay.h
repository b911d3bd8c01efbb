#pragma once
// A dry run's view of a target disk: under it, the cache keeps every change in memory as the
// disk's content for the rest of the run instead of writing it, and the overlay lists the sectors
// each write-back would have written.

#include "platform/storage/cached_storage.h"

#include <vector>

namespace Platform {

struct SectorRange {
    std::uint64_t first;
    std::uint64_t count;
};

class DryRunOverlay : public Object, public WriteBackObserver {
public:
    bool record(const Run& run, std::string& problem) override;
    bool commitRecords(std::string&) override { return true; }
    bool withholdsWrites() const override { return true; }

    // The sectors whose content the write-backs since the last call changed, ascending, with
    // neighbouring runs joined.
    std::vector<SectorRange> take();

private:
    std::vector<SectorRange> pending_;
};

// The number of sectors in the ranges.
std::uint64_t sectorCount(const std::vector<SectorRange>& ranges);

} // namespace Platform
