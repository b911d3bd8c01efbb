#pragma once
// A fresh UEFI boot configuration store on a copied disk's EFI system partition: the template
// store named in the keeper, copied there and filled with one boot entry per Windows on the disk.

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Windows {

StepResult createBCD(Ref<Keeper> keeper);

} // namespace Libraries::KRO::PostProcessing::Windows
