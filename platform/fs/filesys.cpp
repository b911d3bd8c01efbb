#include "platform/fs/filesys.h"

#include "platform/core/error.h"
#include "platform/fs/ext_filesys.h"
#include "platform/fs/fat_filesys.h"
#include "platform/fs/filesys_base.h"
#include "platform/fs/host_filesys.h"
#include "platform/fs/ntfs_filesys.h"
#include "platform/fs/staged_filesys.h"
#include "platform/storage/file_storage.h"

#include <sys/stat.h>

namespace Platform {

LogChannel Filesys::channel()
{
    static const LogChannel registered = SysLogFilter::reg("Filesys");
    return registered;
}

Ref<Filesys> Filesys::create(const std::string& path, std::uint32_t flags, bool readOnly)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        Error::set(Error::PathNotFound);
        return {};
    }
    if (S_ISDIR(info.st_mode))
        return makeRef<HostFilesys>(path, readOnly);
    const auto storage =
        FileStorage::open(path, readOnly ? FileStorage::Access::ReadOnly : FileStorage::Access::ReadWrite);
    return storage ? create(storage, flags, readOnly) : Ref<Filesys>();
}

namespace {

Ref<Filesys> openFamily(Ref<Interfaces::Storage> storage, std::uint32_t type, bool readOnly)
{
    switch (type) {
    case FsFat12:
    case FsFat16:
    case FsFat32:
        return FatFilesys::open(std::move(storage), readOnly);
    case FsNtfs:
        return NtfsFilesys::open(std::move(storage), readOnly);
    case FsExt2:
    case FsExt3:
    case FsExt4:
        return ExtFilesys::open(std::move(storage), readOnly);
    default:
        Error::set(Error::NotSupported);
        return {};
    }
}

} // namespace

Ref<Filesys> Filesys::create(Ref<Interfaces::Storage> storage, std::uint32_t, bool readOnly)
{
    const std::uint32_t type = MountHelper::probe(storage);
    if (readOnly || type == FsNone)
        return openFamily(std::move(storage), type, readOnly);
    // Every change reaches the disk whole or not at all.
    return StagedFilesys::open(std::move(storage), [type](Ref<Interfaces::Storage> staged) {
        return openFamily(std::move(staged), type, false);
    });
}

} // namespace Platform
