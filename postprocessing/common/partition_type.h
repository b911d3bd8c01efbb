#pragma once

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Common {

// "Adjust partition type": on MBR targets, a partition whose type does not fit its file system
// gets the file system's default type.
StepResult adjustPartitionType(Ref<Keeper> keeper);

// "Transfer or adjust partition type": copies each partition's type from the source table, then,
// with adjust, checks it as adjustPartitionType does.
StepResult transferOrAdjustPartitionType(Ref<Keeper> keeper, bool adjust);

} // namespace Libraries::KRO::PostProcessing::Common
