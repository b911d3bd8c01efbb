#pragma once

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Common {

// "Remove Dell MediaDirect": zeroes sector 3 of every MBR target disk unless GRUB boot code in
// the MBR loads its core from the gap there. Ok when a sector was written, else Nothing found.
StepResult removeMediaDirect(Ref<Keeper> keeper);

} // namespace Libraries::KRO::PostProcessing::Common
