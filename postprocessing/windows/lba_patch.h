#pragma once

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Windows {

// "Apply LBA patch": in the MBR boot code of each target, replaces the conditional jump 0F 82 3A 00
// at byte 217 with four NOPs. Nothing found, Ok, or FAILED when a sector cannot be read or written.
StepResult applyLbaPatch(Ref<Keeper> keeper);

} // namespace Libraries::KRO::PostProcessing::Windows
