#pragma once
// The target disk geometry recorded in the keeper (kind 6), with the BIOS defaults 1023/254/63.

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Tools {

// index: a disk entry, or a disk storage entry (then its disk). Sets the outputs to the defaults,
// then to whatever the geometry entry holds; false (with a log line) for other kinds.
bool getDiskGeometry(const Ref<Keeper>& keeper, u64 index, u32& cylinders, u32& heads, u32& sectors);

// The same lookup, answering true only when the entry exists and holds all of CYL, HEAD and SEC.
bool getCompleteDiskGeometry(const Ref<Keeper>& keeper, u64 index, u32& cylinders, u32& heads, u32& sectors);

} // namespace Libraries::KRO::PostProcessing::Tools
