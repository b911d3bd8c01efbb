#pragma once
// The end of every step: what the step changed on the cached target disks goes to the disks, so
// that a step's result is on disk before the next step reports it.

#include "postprocessing/keeper.h"

#include <vector>

namespace Libraries::KRO::PostProcessing::Tools {

// Writes back every target disk storage (kind 4) that is a cached block device. False, with a
// log line naming the disk and the reason, when one could not be written; the step then failed.
bool writeBackTargets(const Keeper& keeper, const char* stepLabel);

// For one run, every disk storage (kind 4) a library caller gave as it is goes behind a cached
// block device, so that the run reads each sector once and writes each step's changes back when
// the step ends. A disk whose partitions have storages of the caller's own (kind 8) stays as it
// is: those would go around the cache. The caller's storages are back in the keeper afterwards.
class CachedDisksForRun {
public:
    explicit CachedDisksForRun(const Ref<Keeper>& keeper);
    ~CachedDisksForRun();
    CachedDisksForRun(const CachedDisksForRun&) = delete;
    CachedDisksForRun& operator=(const CachedDisksForRun&) = delete;

private:
    struct Swapped {
        u64 entry;
        ObjectRef from;
        ObjectRef to;
    };
    Ref<Keeper> keeper_;
    std::vector<Swapped> swapped_;
};

} // namespace Libraries::KRO::PostProcessing::Tools
