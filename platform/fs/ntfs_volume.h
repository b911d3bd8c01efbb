#pragma once
// NTFS: the 8-byte volume serial and the hidden-sectors field of the boot sector, which has a
// byte-identical backup in the last sector of the volume.

#include "platform/fs/filesys_base.h"

#include <optional>

namespace Platform {

class NtfsVolume : public FileSysBase {
public:
    struct Layout {
        std::uint32_t bytesPerSector;
        std::uint64_t backupOffset; // byte offset of the backup boot sector, 0 when outside the storage
    };

    static std::optional<Layout> detect(Interfaces::Storage& storage);

    NtfsVolume(Ref<Interfaces::Storage> storage, const Layout& layout)
        : FileSysBase(std::move(storage)), layout_(layout)
    {
    }

    std::uint32_t type() const override { return FsNtfs; }
    Ref<ByteArray> volumeId() const override;

protected:
    bool writeVolumeId(std::span<const std::uint8_t> id) override;
    bool writePartitionOffset(std::uint64_t sector) override;
    bool writeBootSectorMirror() override;

private:
    // Changes the boot sector and writes it to the backup location first, then to sector 0.
    template <typename Change>
    bool updateBootSector(Change change);

    Layout layout_;
};

} // namespace Platform
