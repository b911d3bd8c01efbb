#pragma once
// Btrfs: a new fsid with the metadata-uuid feature, so that the tree blocks, which carry the old
// fsid, stay valid: the old fsid becomes the metadata UUID. Every superblock copy inside the
// device (64 KiB, 64 MiB, 256 GiB) is rewritten with its checksum.

#include "platform/fs/filesys_base.h"

#include <optional>
#include <vector>

namespace Platform {

class BtrfsVolume : public FileSysBase {
public:
    // The byte offsets of the valid superblock copies, when the primary one is a single-device
    // Btrfs superblock with a checksum we can verify.
    static std::optional<std::vector<std::uint64_t>> detect(Interfaces::Storage& storage);

    BtrfsVolume(Ref<Interfaces::Storage> storage, std::vector<std::uint64_t> copies)
        : FileSysBase(std::move(storage)), copies_(std::move(copies))
    {
    }

    std::uint32_t type() const override { return FsBtrfs; }
    Ref<ByteArray> volumeId() const override;

protected:
    bool writeVolumeId(std::span<const std::uint8_t> id) override;

private:
    std::vector<std::uint64_t> copies_;
};

} // namespace Platform
