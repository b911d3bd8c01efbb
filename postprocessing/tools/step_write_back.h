#pragma once
// The end of every step: what the step changed on the cached target disks goes to the disks, so
// that a step's result is on disk before the next step reports it.

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Tools {

// Writes back every target disk storage (kind 4) that is a cached block device. False, with a
// log line naming the disk and the reason, when one could not be written; the step then failed.
bool writeBackTargets(const Keeper& keeper, const char* stepLabel);

} // namespace Libraries::KRO::PostProcessing::Tools
