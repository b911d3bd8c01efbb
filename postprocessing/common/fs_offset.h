#pragma once

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Common {

// "Partition CHS": the target geometry's sectors per track and heads into the boot sector of
// every FAT and NTFS partition (and into the backup boot sector where the file system keeps one).
StepResult adjustPartitionCHS(Ref<Keeper> keeper);

// "Adjust FS Offset": tells every partition's file system its new first sector.
StepResult adjustFsOffset(Ref<Keeper> keeper);

} // namespace Libraries::KRO::PostProcessing::Common
