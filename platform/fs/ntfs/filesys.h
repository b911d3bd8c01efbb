#pragma once
// The facade over NTFS through libntfs-3g, mounted over one of our storages (no kernel mount,
// no FUSE). Names are looked up case-insensitively, as Windows sees them. A volume Windows left
// hibernated or with an unclean log is opened read-only unless the caller forces a write mount.

#include "platform/fs/facade_base.h"

#include <map>
#include <memory>
#include <optional>

namespace Platform {

class NtfsFilesys : public FacadeBase {
public:
    struct Mount;
    struct OpenData;

    // Null when the storage holds no NTFS libntfs-3g can mount. force: a hibernated volume or one
    // with an open log is opened for writing anyway, its log reset.
    static Ref<NtfsFilesys> open(Ref<Interfaces::Storage> storage, Access access, bool force = false);

    Ref<Directory> openDirectory(const std::string& path) override;
    // Read from the mounted volume's $LogFile.
    std::optional<bool> windowsLogClean() override;

    NtfsFilesys(std::unique_ptr<Mount> mount, Access access);
    ~NtfsFilesys() override;

private:
    Ref<File> openExisting(const std::string& path, Access access) override;
    bool createEmptyFile(const std::string& path) override { return create(path, false); }
    bool makeDirectory(const std::string& path) override { return create(path, true); }
    bool removeExisting(const std::string& path) override;
    bool writeOut() override;
    bool create(const std::string& path, bool directory);
    // The open inode and data of the file at path, shared by every File open on it: libntfs-3g
    // loses an inode opened twice when both copies close.
    std::shared_ptr<OpenData> openData(const std::string& path);

    std::map<std::uint64_t, std::weak_ptr<OpenData>> openData_;

    std::unique_ptr<Mount> mount_;
};

} // namespace Platform
