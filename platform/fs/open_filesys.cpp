// Which facade a path or a storage gets: a host folder, or the family its structures show.

#include "platform/fs/filesys.h"

#include "platform/core/error.h"
#include "platform/fs/filesys_base.h"
#include "platform/fs/host/filesys.h"
#include "platform/fs/staged_filesys.h"
#include "platform/storage/file_storage.h"

#include <sys/stat.h>

namespace Platform {

Ref<Filesys> Filesys::create(const std::string& path, std::uint32_t flags, Access access)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        Error::set(Error::PathNotFound);
        return {};
    }
    if (S_ISDIR(info.st_mode))
        return makeRef<HostFilesys>(path, access);
    const auto storage = FileStorage::open(path, access);
    return storage ? create(storage, flags, access) : Ref<Filesys>();
}

Ref<Filesys> Filesys::create(Ref<Interfaces::Storage> storage, std::uint32_t flags, Access access)
{
    // One look at the structures: the facade is built from what the volume object parsed.
    const Ref<FileSysBase> volume = MountHelper::open(storage);
    if (!volume || !volume->refusal().empty()) {
        Error::set(Error::NotSupported);
        return {};
    }
    if (access == Access::ReadOnly)
        return volume->openFiles(std::move(storage), Access::ReadOnly, flags);
    // Every change reaches the disk whole or not at all.
    return StagedFilesys::open(std::move(storage), [volume, flags](Ref<Interfaces::Storage> staged) {
        return volume->openFiles(std::move(staged), Access::ReadWrite, flags);
    });
}

} // namespace Platform
