#pragma once
// The facade over an ext2/3/4 file system on one of our storages, through libext2fs. Names are
// case-sensitive, as Linux sees them.

#include "platform/fs/ext/io_manager.h"
#include "platform/fs/facade_base.h"

#include <memory>

namespace Platform {

class ExtFilesys : public FacadeBase {
public:
    // Null (with Error set) when the storage holds no ext file system libext2fs can open.
    static Ref<ExtFilesys> open(Ref<Interfaces::Storage> storage, Access access);
    ~ExtFilesys() override;

    Ref<Directory> openDirectory(const std::string& path) override;

    ext2_filsys handle() const { return fs_->get(); }
    std::uint32_t sectorSize() const { return fs_->sectorSize(); }

    ExtFilesys(std::unique_ptr<ExtFileSystem> fs, Access access) : FacadeBase(access), fs_(std::move(fs)) {}

private:
    Ref<File> openExisting(const std::string& path, Access access) override;
    bool createEmptyFile(const std::string& path) override;
    bool makeDirectory(const std::string& path) override;
    bool removeExisting(const std::string& path) override;
    bool writeOut() override;

    // The inode of path, or 0 with Error set.
    ext2_ino_t lookup(const std::string& path);
    // The parent directory's inode and the last name of path; 0 when the parent is missing.
    ext2_ino_t parentOf(const std::string& path, std::string& name);
    ext2_ino_t newFileInode(ext2_ino_t parent, const std::string& name);
    bool failWith(errcode_t code);

    std::unique_ptr<ExtFileSystem> fs_;
};

} // namespace Platform
