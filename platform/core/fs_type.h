#pragma once
// File-system type codes of the platform.

#include <cstdint>

namespace Platform {

enum FsType : std::uint32_t {
    FsNone = 0,
    FsFat12 = 0x10010,
    FsFat16 = 0x10011,
    FsFat32 = 0x10012,
    FsExfat = 0x10013,
    FsNtfs = 0x10020,
    FsExt2 = 0x10031,
    FsExt3 = 0x10032,
    FsExt4 = 0x10033,
    FsXfs = 0x10060,
    FsBtrfs = 0x10070,
    FsSwap = 0x10080,
};

} // namespace Platform
