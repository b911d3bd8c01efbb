#pragma once
// The facade over a directory of the host: a file system the caller mounted.

#include "platform/fs/facade_base.h"

namespace Platform {

class HostFilesys : public FacadeBase {
public:
    HostFilesys(std::string root, Access access) : FacadeBase(access), root_(std::move(root)) {}

    Ref<Directory> openDirectory(const std::string& path) override;

private:
    Ref<File> openExisting(const std::string& path, Access access) override;
    bool createEmptyFile(const std::string& path) override;
    bool makeDirectory(const std::string& path) override;
    bool removeExisting(const std::string& path) override;
    bool writeOut() override { return true; } // the host writes as we go

    // The host path, or empty when path would leave the root.
    std::string hostPath(const std::string& path) const;

    std::string root_;
};

} // namespace Platform
