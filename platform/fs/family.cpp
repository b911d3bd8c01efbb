#include "platform/fs/family.h"

#include <array>

namespace Platform {

namespace {

constexpr std::array kFamilies{
    // type, name, id length and name, FAT, BIOS boot sector
    FsFamily{FsFat12, "FAT12", 4, "volume serial", true, true},
    FsFamily{FsFat16, "FAT16", 4, "volume serial", true, true},
    FsFamily{FsFat32, "FAT32", 4, "volume serial", true, true},
    FsFamily{FsExfat, "exFAT", 4, "volume serial", false, false},
    FsFamily{FsNtfs, "NTFS", 8, "volume serial", false, true},
    FsFamily{FsExt2, "ext2", 16, "UUID", false, false},
    FsFamily{FsExt3, "ext3", 16, "UUID", false, false},
    FsFamily{FsExt4, "ext4", 16, "UUID", false, false},
    FsFamily{FsXfs, "XFS", 16, "UUID", false, false},
    FsFamily{FsBtrfs, "Btrfs", 16, "fsid", false, false},
    FsFamily{FsSwap, "swap", 16, "UUID", false, false},
};

constexpr FsFamily kUnknown{FsNone, "unknown", 0, "id", false, false};

} // namespace

const FsFamily& fsFamily(std::uint32_t type)
{
    for (const auto& family : kFamilies)
        if (family.type == type)
            return family;
    return kUnknown;
}

} // namespace Platform
