#pragma once

#include "platform/fs/filesys_base.h"
#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Common {

// "New fs ids": a new volume id for the file system of every partition (slot 2), or of those
// with a kind-13 entry; records old and new id as kind 13.
StepResult changeVolumeIds(Ref<Keeper> keeper);

// One file system: checks the expected id (the entry's from-object), sets the given or a random
// id, records the change. Nothing found, Ok or FAILED.
StepResult changeVolumeId(Ref<Keeper> keeper, Ref<Platform::FileSysBase> fs, u64 partition, u64 idEntry);

} // namespace Libraries::KRO::PostProcessing::Common
