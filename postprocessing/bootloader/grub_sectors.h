#pragma once

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Bootloader {

// "Adjusting grub sector lists": on every target disk whose MBR (or a partition's boot sector)
// holds GRUB 2 boot code, the boot code's pointer to the core image and the core's own list of
// its sectors follow the core to where the copy put it: through the disk's area translator
// (kind 7), into a moved BIOS boot partition, or to core.img's new sectors inside a partition.
StepResult adjustGrubSectorLists(Ref<Keeper> keeper);

} // namespace Libraries::KRO::PostProcessing::Bootloader
