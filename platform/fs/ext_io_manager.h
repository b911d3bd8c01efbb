#pragma once
// Opens an ext file system with libext2fs over one of our storages (a partition inside an image
// or a device), through an io_manager of our own; libext2fs only ever sees a name.

#include "platform/storage/storage.h"

#include <ext2fs/ext2fs.h>
#include <string>

namespace Platform {

class ExtFileSystem {
public:
    // flags: EXT2_FLAG_* for ext2fs_open2 (EXT2_FLAG_64BITS is always added).
    ExtFileSystem(Ref<Interfaces::Storage> storage, int flags);
    ~ExtFileSystem();
    ExtFileSystem(const ExtFileSystem&) = delete;
    ExtFileSystem& operator=(const ExtFileSystem&) = delete;

    ext2_filsys get() const { return fs_; }
    explicit operator bool() const { return fs_ != nullptr; }
    errcode_t openError() const { return openError_; }
    // Flushes and closes; the libext2fs error code, 0 on success.
    errcode_t close();

private:
    std::string name_;
    ext2_filsys fs_ = nullptr;
    errcode_t openError_ = 0;
};

// The text of a libext2fs error code.
std::string extErrorText(errcode_t code);

} // namespace Platform
