#pragma once
// What every file-system facade decides the same way before its family acts: no change through a
// read-only facade, a missing file created when the flags ask for it, a file emptied after it
// opened. A family supplies the operations on what exists.

#include "platform/core/access.h"
#include "platform/fs/filesys.h"

namespace Platform {

class FacadeBase : public Filesys {
public:
    Ref<File> openFile(const std::string& path, std::uint32_t flags) final;
    bool createDirectory(const std::string& path) final;
    bool removeFile(const std::string& path) final;
    bool flush() final;
    bool readOnly() const final { return access_ == Access::ReadOnly; }

protected:
    explicit FacadeBase(Access access) : access_(access) {}

    // "/a/b" as the parent path "/a" and the name "b"; "/b" as "/" and "b".
    static std::pair<std::string, std::string> splitParent(const std::string& path);

    // An existing file; null with Error set (PathNotFound when it is missing, IsDirectory for a
    // directory).
    virtual Ref<File> openExisting(const std::string& path, Access access) = 0;
    // A new empty file in an existing directory.
    virtual bool createEmptyFile(const std::string& path) = 0;
    virtual bool makeDirectory(const std::string& path) = 0;
    // A file, not a directory.
    virtual bool removeExisting(const std::string& path) = 0;
    // Writes what the family holds in memory; asked of writable facades only.
    virtual bool writeOut() = 0;

private:
    bool refuseIfReadOnly() const;

    Access access_;
};

} // namespace Platform
