#include "platform/fs/damaged_volume.h"

#include "platform/storage/byte_io.h"

#include <cstring>

namespace Platform {

namespace {

constexpr std::uint64_t kExtMagic = 1024 + 0x38;
constexpr std::uint64_t kExtIncompat = 1024 + 0x60;
constexpr std::uint8_t kExtIncompatJournalDev = 0x08;

struct Signature {
    std::uint64_t offset;
    const char* text;
    std::uint32_t type;
    const char* record; // what holds the damage
    const char* remedy;
};

// Strong signatures only: text a partition holds because a family's tool wrote it there.
constexpr Signature kSignatures[] = {
    {3, "NTFS    ", FsNtfs, "the NTFS boot sector", "run chkdsk or ntfsfix first"},
    {3, "EXFAT   ", FsExfat, "the exFAT boot region", "run fsck.exfat first"},
    {0x52, "FAT32   ", FsFat32, "the FAT32 boot sector", "run fsck.fat first"},
    {0x36, "FAT16   ", FsFat16, "the FAT16 boot sector", "run fsck.fat first"},
    {0x36, "FAT12   ", FsFat12, "the FAT12 boot sector", "run fsck.fat first"},
    {0, "XFSB", FsXfs, "the XFS superblock", "run xfs_repair first"},
    {0x10040, "_BHRfS_M", FsBtrfs, "the Btrfs superblock",
     "it is left alone (run btrfs check if the file system should be usable)"},
    {kExtMagic, "\x53\xEF", FsExt4, "the ext superblock", "run e2fsck -f first"},
};

} // namespace

std::optional<DamagedVolume::Damage> DamagedVolume::detect(Interfaces::Storage& storage,
                                                           const std::function<std::string(std::uint32_t)>& whatIsWrong)
{
    // An external ext journal carries the ext magic but is no file system of its own.
    const auto incompat = readBytes(storage, kExtIncompat, 1);
    const auto magic = readBytes(storage, kExtMagic, 2);
    if (magic.size() == 2 && magic[0] == 0x53 && magic[1] == 0xEF && !incompat.empty() &&
        (incompat[0] & kExtIncompatJournalDev))
        return std::nullopt;
    for (const auto& signature : kSignatures) {
        const std::size_t length = std::strlen(signature.text);
        const auto bytes = readBytes(storage, signature.offset, length);
        if (bytes.size() == length && std::memcmp(bytes.data(), signature.text, length) == 0) {
            const std::string what = whatIsWrong(signature.type);
            return Damage{signature.type, std::string(signature.record) +
                                              (what.empty() ? " holds impossible values" : " is damaged: " + what) +
                                              "; " + signature.remedy};
        }
    }
    return std::nullopt;
}

} // namespace Platform
