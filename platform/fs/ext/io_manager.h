#pragma once
// Opens an ext file system with libext2fs over one of our storages (a partition inside an image
// or a device), through an io_manager of our own; libext2fs only ever sees a name.

#include "platform/storage/storage.h"

#include <ext2fs/ext2fs.h>
#include <string>

namespace Platform {

class ExtFileSystem {
public:
    // flags: EXT2_FLAG_* for ext2fs_open2 (EXT2_FLAG_64BITS is always added). The superblock
    // must pass e2fsck's sanity rules and, unless only the superblock is read, the group
    // descriptors libext2fs' own placement checks, before the file system counts as open.
    ExtFileSystem(Ref<Interfaces::Storage> storage, int flags);
    ~ExtFileSystem();
    ExtFileSystem(const ExtFileSystem&) = delete;
    ExtFileSystem& operator=(const ExtFileSystem&) = delete;

    ext2_filsys get() const { return fs_; }
    explicit operator bool() const { return fs_ != nullptr; }
    errcode_t openError() const { return openError_; }
    // Why the file system was refused, in words: our own checks, or libext2fs' error text.
    const std::string& openProblem() const { return openProblem_; }
    // The sector size of the storage below.
    std::uint32_t sectorSize() const { return sectorSize_; }
    // Flushes and closes; the libext2fs error code, 0 on success.
    errcode_t close();

private:
    std::string name_;
    ext2_filsys fs_ = nullptr;
    errcode_t openError_ = 0;
    std::string openProblem_;
    std::uint32_t sectorSize_;
};

// The text of a libext2fs error code.
std::string extErrorText(errcode_t code);
// The platform's code for a libext2fs error code (errno values included).
std::uint32_t fromExtError(errcode_t code);
// Sets the platform error from a libext2fs code, with its text after what failed.
void setExtError(errcode_t code, const std::string& what);

} // namespace Platform
