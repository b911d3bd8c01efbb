#include "postprocessing/tools/target_filesystem.h"

#include "platform/core/error.h"
#include "postprocessing/tools/storage_resolution.h"

namespace Libraries::KRO::PostProcessing::Tools {

u32 getToFileSystemType(const Ref<Keeper>& keeper, u64 partition)
{
    return Platform::MountHelper::probe(getToStorage(keeper, partition));
}

Ref<Platform::FileSysBase> openToFileSystem(const Ref<Keeper>& keeper, u64 partition)
{
    const auto storage = getToStorage(keeper, partition);
    if (!storage)
        return {};
    const u32 type = Platform::MountHelper::probe(storage);
    if (type == Platform::FsNone) {
        Platform::Error::set(Platform::Error::NotSupported);
        return {};
    }
    return Platform::MountHelper::createFilesysBase(storage, type);
}

} // namespace Libraries::KRO::PostProcessing::Tools
