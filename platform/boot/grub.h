#pragma once
// Recognition of GRUB's i386-pc boot sector (GRUB 2 boot.img, or legacy GRUB stage 1) and the
// sector from which it loads the rest of the boot loader.

#include <cstddef>
#include <cstdint>

namespace Platform {

class Grub {
public:
    enum BootSectorType : std::uint32_t { NotGrub = 0, Grub2 = 1, GrubLegacy = 2 };

    // NotGrub unless sector holds GRUB boot code.
    static std::uint32_t grubBootSectorType(const std::uint8_t* sector, std::size_t length);
    // The LBA of the core image (GRUB 2) or stage 2 (legacy) that the boot sector loads; 0 when
    // the sector is no GRUB boot sector.
    static std::uint64_t grubBootSectorStart(const std::uint8_t* sector, std::size_t length);
};

} // namespace Platform
