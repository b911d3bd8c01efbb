#pragma once
// The steps that make a copied Windows find its volumes again: the mappings of one disk (old and
// new disk id, each partition's old and new identity) collected from the keeper and handed to the
// volume adjuster, for the drive-letter records and for the boot configuration stores.

#include "platform/windows/adjust_volumes.h"
#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing {

// The adjuster for the disk entry diskId, or null when it is no disk, its ids are unknown or
// nothing changed on it.
Ref<Platform::Windows::AdjustWindowsVolumes> getAdjustVolumes(const Ref<Keeper>& keeper, u64 diskId);

namespace Windows {

StepResult adjustMountedDevices(Ref<Keeper> keeper);
StepResult adjustBcd(Ref<Keeper> keeper);

} // namespace Windows
} // namespace Libraries::KRO::PostProcessing
