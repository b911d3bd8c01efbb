#pragma once
// The file system on a partition entry's target storage, probed from its own structures.

#include "platform/fs/filesys_base.h"
#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Tools {

// The platform's type code, or 0 when the partition has no storage or no known file system.
u32 getToFileSystemType(const Ref<Keeper>& keeper, u64 partition);
// The file system, or null (Platform::Error holds 0x10002 when the type is unknown).
Ref<Platform::FileSysBase> openToFileSystem(const Ref<Keeper>& keeper, u64 partition);

} // namespace Libraries::KRO::PostProcessing::Tools
