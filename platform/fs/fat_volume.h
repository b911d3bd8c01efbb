#pragma once
// FAT12, FAT16 and FAT32: the volume serial and hidden-sectors fields of the boot sector, and on
// FAT32 of its backup copy too. The FAT type follows from the cluster count, as the format itself
// defines it.

#include "platform/fs/filesys_base.h"

#include <optional>

namespace Platform {

class FatVolume : public FileSysBase {
public:
    struct Layout {
        std::uint32_t type;
        std::uint32_t bytesPerSector;
        std::size_t serialOffset;   // 0 when the boot sector has no extended signature
        std::uint64_t backupSector; // FAT32 backup boot sector, 0 when there is none
    };

    // The layout when sector 0 is a consistent FAT boot sector that fits the storage.
    static std::optional<Layout> detect(Interfaces::Storage& storage);

    FatVolume(Ref<Interfaces::Storage> storage, const Layout& layout) : FileSysBase(std::move(storage)), layout_(layout)
    {
    }

    std::uint32_t type() const override { return layout_.type; }
    Ref<ByteArray> volumeId() const override;

protected:
    bool writeVolumeId(std::span<const std::uint8_t> id) override;
    bool writePartitionOffset(std::uint64_t sector) override;
    bool writeBootSectorMirror() override;

private:
    // Applies change to the boot sector and, on FAT32, to its backup (written first).
    template <typename Change>
    bool updateBootSectors(Change change);

    Layout layout_;
};

} // namespace Platform
