#pragma once
// The facade over a directory of the host: a file system the caller mounted. With an overlay (a
// dry run), the folder is only read: what the run writes, makes and removes stays in the overlay.

#include "platform/fs/facade_base.h"
#include "platform/fs/host_overlay.h"

namespace Platform {

class HostFilesys : public FacadeBase {
public:
    HostFilesys(std::string root, Access access, HostOverlay* overlay = nullptr)
        : FacadeBase(access), root_(std::move(root)), overlay_(overlay)
    {
    }

    Ref<Directory> openDirectory(const std::string& path) override;

private:
    Ref<File> openExisting(const std::string& path, Access access) override;
    bool createEmptyFile(const std::string& path) override;
    bool makeDirectory(const std::string& path) override;
    bool removeExisting(const std::string& path) override;
    bool writeOut() override { return true; } // the host writes as we go

    // The host path, or empty when path would leave the root.
    std::string hostPath(const std::string& path) const;

    Ref<File> openOnHost(const std::string& host, Access access);
    // The same operations on the overlay.
    Ref<File> openInOverlay(const std::string& host, Access access);
    bool createInOverlay(const std::string& host);
    bool makeDirectoryInOverlay(const std::string& host);
    bool removeInOverlay(const std::string& host);
    Ref<Directory> listWithOverlay(const std::string& host);
    // A file or directory there, as the run has left it.
    bool existsInOverlay(const std::string& host) const;

    std::string root_;
    HostOverlay* overlay_;
};

} // namespace Platform
