#pragma once
// NTFS: the 8-byte volume serial, and the boot sector's geometry and hidden-sectors fields; the
// boot sector has a byte-identical backup in the last sector of the volume.

#include "platform/fs/bios_boot_sector.h"

#include <optional>

namespace Platform {

class NtfsVolume : public BiosBootSectorVolume {
public:
    struct Layout {
        std::uint32_t bytesPerSector;
        std::uint64_t backupOffset; // byte offset of the backup boot sector, 0 when outside the storage
    };

    static std::optional<Layout> detect(Interfaces::Storage& storage);

    NtfsVolume(Ref<Interfaces::Storage> storage, const Layout& layout)
        : BiosBootSectorVolume(std::move(storage), layout.bytesPerSector, layout.backupOffset)
    {
    }

    std::uint32_t type() const override { return FsNtfs; }
    Ref<ByteArray> volumeId() const override;
    Ref<Filesys> openFiles(Ref<Interfaces::Storage> storage, Access access, std::uint32_t flags) const override;

protected:
    bool writeVolumeId(std::span<const std::uint8_t> id) override;
};

} // namespace Platform
