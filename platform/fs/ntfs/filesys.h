#pragma once
// The facade over NTFS through libntfs-3g, mounted over one of our storages (no kernel mount,
// no FUSE). Names are looked up case-insensitively, as Windows sees them. A volume Windows left
// hibernated or with an unclean log is opened read-only unless the caller forces a write mount.

#include "platform/fs/filesys.h"

#include <memory>

namespace Platform {

class NtfsFilesys : public Filesys {
public:
    struct Mount;

    // Null when the storage holds no NTFS libntfs-3g can mount.
    static Ref<NtfsFilesys> open(Ref<Interfaces::Storage> storage, bool readOnly, bool force = false);

    Ref<File> openFile(const std::string& path, std::uint32_t flags) override;
    Ref<Directory> openDirectory(const std::string& path) override;
    bool createDirectory(const std::string& path) override;
    bool removeFile(const std::string& path) override;
    bool flush() override;
    bool readOnly() const override;

    explicit NtfsFilesys(std::unique_ptr<Mount> mount);
    ~NtfsFilesys() override;

private:
    bool create(const std::string& path, bool directory);

    std::unique_ptr<Mount> mount_;
};

} // namespace Platform
