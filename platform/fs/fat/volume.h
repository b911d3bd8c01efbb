#pragma once
// FAT12, FAT16 and FAT32: the volume serial, and the boot sector's geometry and hidden-sectors
// fields, on FAT32 in its backup copy too.

#include "platform/fs/bios_boot_sector.h"
#include "platform/fs/fat/boot_sector.h"

#include <optional>

namespace Platform {

class FatVolume : public BiosBootSectorVolume {
public:
    // The boot sector when sector 0 is a consistent FAT boot sector that fits the storage.
    static std::optional<Fat::BootSector> detect(Interfaces::Storage& storage) { return Fat::readBootSector(storage); }

    FatVolume(Ref<Interfaces::Storage> storage, const Fat::BootSector& boot)
        : BiosBootSectorVolume(std::move(storage), boot.bytesPerSector,
                               std::uint64_t(boot.backupSector) * boot.bytesPerSector),
          boot_(boot)
    {
    }

    std::uint32_t type() const override { return boot_.type; }
    Ref<ByteArray> volumeId() const override;
    Ref<Filesys> openFiles(Ref<Interfaces::Storage> storage, Access access, std::uint32_t flags) const override;

protected:
    bool writeVolumeId(std::span<const std::uint8_t> id) override;

private:
    Fat::BootSector boot_;
};

} // namespace Platform
