#pragma once
// The facade over an ext2/3/4 file system on one of our storages, through libext2fs. Names are
// case-sensitive, as Linux sees them.

#include "platform/fs/ext/io_manager.h"
#include "platform/fs/filesys.h"

#include <memory>

namespace Platform {

class ExtFilesys : public Filesys {
public:
    // Null (with Error set) when the storage holds no ext file system libext2fs can open.
    static Ref<ExtFilesys> open(Ref<Interfaces::Storage> storage, bool readOnly);
    ~ExtFilesys() override;

    Ref<File> openFile(const std::string& path, std::uint32_t flags) override;
    Ref<Directory> openDirectory(const std::string& path) override;
    bool createDirectory(const std::string& path) override;
    bool removeFile(const std::string& path) override;
    bool flush() override;
    bool readOnly() const override { return readOnly_; }

    ext2_filsys handle() const { return fs_->get(); }

    ExtFilesys(std::unique_ptr<ExtFileSystem> fs, bool readOnly) : fs_(std::move(fs)), readOnly_(readOnly) {}

private:
    // The inode of path, or 0 with Error set.
    ext2_ino_t lookup(const std::string& path);
    // The parent directory's inode and the last name of path; 0 when the parent is missing.
    ext2_ino_t parentOf(const std::string& path, std::string& name);
    ext2_ino_t createFile(ext2_ino_t parent, const std::string& name);
    bool failWith(errcode_t code);

    std::unique_ptr<ExtFileSystem> fs_;
    bool readOnly_;
};

} // namespace Platform
