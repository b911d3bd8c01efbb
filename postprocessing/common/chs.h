#pragma once
// BIOS CHS addresses packed as the partition manager takes them: head in bits 16-23, sector and
// cylinder bits 8-9 in bits 8-15, cylinder bits 0-7 in bits 0-7.

#include "postprocessing/types.h"

namespace Libraries::KRO::PostProcessing::Common {

inline constexpr u32 kChsNotRepresentable = 0xFF000000;

// The packed address of lba; kChsNotRepresentable beyond cylinder 1023. Heads or sectors 0 give
// cylinder 0, head 0, sector 1.
constexpr u32 encodeChs(u32 heads, u32 sectorsPerTrack, u32 lba) noexcept
{
    u32 cylinder = 0, head = 0, sector = 1;
    if (heads != 0 && sectorsPerTrack != 0) {
        const u64 perCylinder = u64(heads) * sectorsPerTrack;
        const u64 c = lba / perCylinder;
        if (c > 1023)
            return kChsNotRepresentable;
        const u64 r = lba % perCylinder;
        cylinder = u32(c);
        head = u32(r / sectorsPerTrack);
        sector = u32(r % sectorsPerTrack) + 1;
    }
    return (head & 0xFF) << 16 | (sector & 0x3F) << 8 | (cylinder >> 8 & 0x3) << 14 | (cylinder & 0xFF);
}

static_assert(encodeChs(254, 63, 63) == 0x010100);
static_assert(encodeChs(0, 63, 5000) == 0x000100);

} // namespace Libraries::KRO::PostProcessing::Common
