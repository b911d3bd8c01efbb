#include "platform/fs/damaged_volume.h"

#include "platform/storage/byte_io.h"

#include <cstring>

namespace Platform {

namespace {

struct Signature {
    std::uint64_t offset;
    const char* text;
    std::uint32_t type;
    const char* reason;
};

// Strong signatures only: text a partition holds because a family's tool wrote it there.
constexpr Signature kSignatures[] = {
    {3, "NTFS    ", FsNtfs, "the NTFS boot sector holds impossible values; run chkdsk or ntfsfix first"},
    {3, "EXFAT   ", FsExfat, "the exFAT boot region is damaged or fails its checksum; run fsck.exfat first"},
    {0x52, "FAT32   ", FsFat32, "the FAT32 boot sector holds impossible values; run fsck.fat first"},
    {0x36, "FAT16   ", FsFat16, "the FAT16 boot sector holds impossible values; run fsck.fat first"},
    {0x36, "FAT12   ", FsFat12, "the FAT12 boot sector holds impossible values; run fsck.fat first"},
    {0, "XFSB", FsXfs, "the XFS superblock is damaged or fails its checksum; run xfs_repair first"},
    {0x10040, "_BHRfS_M", FsBtrfs, "the Btrfs superblock is damaged or fails its checksum; run btrfs check first"},
    {0x438, "\x53\xEF", FsExt4, "the ext superblock holds impossible values; run e2fsck -f first"},
};

} // namespace

Ref<DamagedVolume> DamagedVolume::recognize(Ref<Interfaces::Storage> storage)
{
    for (const auto& signature : kSignatures) {
        const std::size_t length = std::strlen(signature.text);
        const auto bytes = readBytes(*storage, signature.offset, length);
        if (bytes.size() == length && std::memcmp(bytes.data(), signature.text, length) == 0)
            return makeRef<DamagedVolume>(std::move(storage), signature.type, signature.reason);
    }
    return {};
}

} // namespace Platform
