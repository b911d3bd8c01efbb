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
    auto fs = Platform::MountHelper::open(storage);
    if (!fs)
        Platform::Error::set(Platform::Error::NotSupported);
    return fs;
}

} // namespace Libraries::KRO::PostProcessing::Tools
