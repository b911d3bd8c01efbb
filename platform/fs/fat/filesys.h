#pragma once
// The facade over FAT12, FAT16 and FAT32: long and short names, case-insensitive lookup as
// Windows sees names, every FAT copy kept equal and the FAT32 FSInfo free count kept right.
// Damaged chains and directories that contain themselves are errors, never followed.

#include "platform/fs/fat/boot_sector.h"
#include "platform/fs/filesys.h"

#include <memory>

namespace Platform {

namespace Fat {
class AllocationTable;
struct Node;
} // namespace Fat

class FatFilesys : public Filesys {
public:
    // The facade over the volume whose boot sector was parsed as boot; null (Error set) when its
    // table is damaged or cannot be read.
    static Ref<FatFilesys> open(Ref<Interfaces::Storage> storage, const Fat::BootSector& boot, bool readOnly);

    Ref<File> openFile(const std::string& path, std::uint32_t flags) override;
    Ref<Directory> openDirectory(const std::string& path) override;
    bool createDirectory(const std::string& path) override;
    bool removeFile(const std::string& path) override;
    bool flush() override;
    bool readOnly() const override { return readOnly_; }

    FatFilesys(std::unique_ptr<Fat::AllocationTable> table, bool readOnly);
    ~FatFilesys() override;

private:
    std::optional<Fat::Node> lookup(const std::string& path);
    std::optional<Fat::Node> createEntry(const std::string& path, std::uint8_t attributes, std::uint32_t firstCluster);

    std::unique_ptr<Fat::AllocationTable> table_;
    bool readOnly_;
};

} // namespace Platform
