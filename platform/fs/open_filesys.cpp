// Which facade a path or a storage gets: a host folder, or the family its structures show.

#include "platform/fs/filesys.h"

#include "platform/core/error.h"
#include "platform/fs/filesys_base.h"
#include "platform/fs/host/filesys.h"
#include "platform/fs/staged_filesys.h"
#include "platform/fs/watched_filesys.h"
#include "platform/storage/dry_run_overlay.h"
#include "platform/storage/file_storage.h"

#include <sys/stat.h>

namespace Platform {

namespace {

Ref<Filesys> openOnStorage(Ref<Interfaces::Storage> storage, std::uint32_t flags, Access access);

// An image file of a dry run: read from the file, changed in memory only.
Ref<Interfaces::Storage> heldBack(Ref<Interfaces::Storage> image)
{
    const auto cache = makeRef<CachedStorage>(std::move(image));
    cache->setObserver(makeRef<DryRunOverlay>());
    return cache;
}

} // namespace

Ref<Filesys> Filesys::create(const std::string& path, std::uint32_t flags, Access access)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        Error::set(Error::PathNotFound);
        return {};
    }
    FileChangeLog* log = (flags & OpenFlags::Unwatched) != 0 ? nullptr : FileChangeLog::active();
    if (S_ISDIR(info.st_mode)) {
        auto host = makeRef<HostFilesys>(path, access, log ? &log->hostOverlay() : nullptr);
        return log ? watchFilesys(std::move(host), path, {}) : Ref<Filesys>(std::move(host));
    }
    const auto storage = FileStorage::open(path, log ? Access::ReadOnly : access);
    if (!storage)
        return {};
    if (!log)
        return openOnStorage(storage, flags, access);
    return watchFilesys(openOnStorage(heldBack(storage), flags, access), path, {});
}

Ref<Filesys> Filesys::create(Ref<Interfaces::Storage> storage, std::uint32_t flags, Access access)
{
    if (FileChangeLog::active() && access == Access::ReadWrite)
        return watchFilesys(openOnStorage(storage, flags, access), {}, storage);
    return openOnStorage(std::move(storage), flags, access);
}

namespace {

Ref<Filesys> openOnStorage(Ref<Interfaces::Storage> storage, std::uint32_t flags, Access access)
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

} // namespace

} // namespace Platform
