#pragma once
// ext2, ext3 and ext4 through libext2fs: a new UUID written the way e2fsprogs writes one, into
// the primary and every backup superblock, with group-descriptor checksums and, on metadata_csum
// file systems without a checksum seed, every metadata checksum rewritten. The checksum-seed
// feature is never switched on: older boot loaders cannot read such a file system.

#include "platform/fs/filesys_base.h"

#include <optional>

namespace Platform {

class ExtVolume : public FileSysBase {
public:
    // FsExt2, FsExt3 or FsExt4 when the storage holds an ext superblock that fits it.
    static std::optional<std::uint32_t> detect(Interfaces::Storage& storage);

    ExtVolume(Ref<Interfaces::Storage> storage, std::uint32_t type) : FileSysBase(std::move(storage)), type_(type) {}

    std::uint32_t type() const override { return type_; }
    Ref<ByteArray> volumeId() const override;
    Ref<Filesys> openFiles(Ref<Interfaces::Storage> storage, Access access, std::uint32_t flags) const override;

protected:
    bool writeVolumeId(std::span<const std::uint8_t> id) override;

private:
    std::uint32_t type_;
};

} // namespace Platform
