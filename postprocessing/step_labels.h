#pragma once
// The label of each step slot, as the run announces it.

#include "postprocessing/types.h"

namespace Libraries::KRO::PostProcessing {

// Slots 0 and 1 share "Change or get disk ids", 24 and 25 "Adjusting grub sector lists".
// Empty for a slot outside 0..30.
const char* stepLabel(s32 slot) noexcept;

} // namespace Libraries::KRO::PostProcessing
