#include "platform/fs/family.h"

#include <array>

namespace Platform {

namespace {

constexpr std::array kFamilies{
    //      type     name     id  FAT    BIOS boot sector
    FsFamily{FsFat12, "FAT12", 4, true, true},  FsFamily{FsFat16, "FAT16", 4, true, true},
    FsFamily{FsFat32, "FAT32", 4, true, true},  FsFamily{FsExfat, "exFAT", 4, false, false},
    FsFamily{FsNtfs, "NTFS", 8, false, true},   FsFamily{FsExt2, "ext2", 16, false, false},
    FsFamily{FsExt3, "ext3", 16, false, false}, FsFamily{FsExt4, "ext4", 16, false, false},
    FsFamily{FsXfs, "XFS", 16, false, false},   FsFamily{FsBtrfs, "Btrfs", 16, false, false},
    FsFamily{FsSwap, "swap", 16, false, false},
};

constexpr FsFamily kUnknown{FsNone, "unknown", 0, false, false};

} // namespace

const FsFamily& fsFamily(std::uint32_t type)
{
    for (const auto& family : kFamilies)
        if (family.type == type)
            return family;
    return kUnknown;
}

} // namespace Platform
