#pragma once
// The facade over a directory of the host: a file system the caller mounted.

#include "platform/fs/filesys.h"

namespace Platform {

class HostFilesys : public Filesys {
public:
    HostFilesys(std::string root, bool readOnly) : root_(std::move(root)), readOnly_(readOnly) {}

    Ref<File> openFile(const std::string& path, std::uint32_t flags) override;
    Ref<Directory> openDirectory(const std::string& path) override;
    bool createDirectory(const std::string& path) override;
    bool removeFile(const std::string& path) override;
    bool flush() override { return true; }
    bool readOnly() const override { return readOnly_; }

private:
    // The host path, or empty when path would leave the root.
    std::string hostPath(const std::string& path) const;

    std::string root_;
    bool readOnly_;
};

} // namespace Platform
