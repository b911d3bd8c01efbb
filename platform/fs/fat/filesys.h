#pragma once
// The facade over FAT12, FAT16 and FAT32: long and short names, case-insensitive lookup as
// Windows sees names, every FAT copy kept equal and the FAT32 FSInfo free count kept right.
// Damaged chains and directories that contain themselves are errors, never followed.

#include "platform/fs/facade_base.h"
#include "platform/fs/fat/boot_sector.h"

#include <memory>

namespace Platform {

namespace Fat {
class AllocationTable;
struct Node;
} // namespace Fat

class FatFilesys : public FacadeBase {
public:
    // The facade over the volume whose boot sector was parsed as boot; null (Error set) when its
    // table is damaged or cannot be read.
    static Ref<FatFilesys> open(Ref<Interfaces::Storage> storage, const Fat::BootSector& boot, Access access);

    Ref<Directory> openDirectory(const std::string& path) override;

    FatFilesys(std::unique_ptr<Fat::AllocationTable> table, Access access);
    ~FatFilesys() override;

private:
    Ref<File> openExisting(const std::string& path, Access access) override;
    bool createEmptyFile(const std::string& path) override;
    bool makeDirectory(const std::string& path) override;
    bool removeExisting(const std::string& path) override;
    bool writeOut() override;

    std::optional<Fat::Node> lookup(const std::string& path);
    std::optional<Fat::Node> createEntry(const std::string& path, std::uint8_t attributes, std::uint32_t firstCluster);

    std::unique_ptr<Fat::AllocationTable> table_;
};

} // namespace Platform
