#pragma once

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Common {

// "Change or get disk ids": gives every target disk (slot 0) and every GPT partition (slot 1) new
// ids, or keeps and records the current ones for a GPT migration (slot 30), and records old-to-new
// disk ids (kind 5) and partition UUIDs (kind 9). Stores its results in slots 0 and 1.
StepResult changeDiskIds(Ref<Keeper> keeper);

} // namespace Libraries::KRO::PostProcessing::Common
