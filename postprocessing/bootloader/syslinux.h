#pragma once

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Bootloader {

// "Adjusting syslinux sector list": on every target partition whose boot sector syslinux wrote,
// ldlinux.sys' sector list and the boot sector's pointer to it follow the file to where the copy
// put it.
StepResult adjustSyslinux(Ref<Keeper> keeper);

} // namespace Libraries::KRO::PostProcessing::Bootloader
