#pragma once
// GRUB's i386-pc boot code (GRUB 2 boot.img, or legacy GRUB stage 1) and the first sector of a
// GRUB 2 core image (diskboot.img), which lists the core's other sectors: recognised, read and
// pointed at the sectors where a copy put the core.

#include "platform/core/area.h"
#include "platform/core/guid.h"
#include "platform/storage/area_translator.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Platform {

class Grub {
public:
    enum BootSectorType : std::uint32_t { NotGrub = 0, Grub2 = 1, GrubLegacy = 2 };

    // The GPT type of a BIOS boot partition, where GRUB 2 puts its core on a GPT disk.
    static constexpr Guid kBiosBootPartitionType = guidFromText("21686148-6449-6E6F-744E-656564454649");

    // NotGrub unless sector holds GRUB boot code.
    static std::uint32_t grubBootSectorType(const std::uint8_t* sector, std::size_t length);
    // The LBA of the core image (GRUB 2) or stage 2 (legacy) that the boot sector loads; 0 when
    // the sector is no GRUB boot sector.
    static std::uint64_t grubBootSectorStart(const std::uint8_t* sector, std::size_t length);

    // The sectors of a core image as its first sector lists them: that sector itself (at
    // firstSector, where the boot code loads it from), then its block list, joined where they
    // continue each other. Nothing (Error Corrupt) when coreSector is no GRUB 2 core's first
    // sector or its list does not hold together.
    static std::optional<std::vector<Area>> grubCoreImageSectors(const std::uint8_t* coreSector, std::size_t length,
                                                                 std::uint64_t firstSector);
    // Where the copy put those sectors; nothing when one of them was not copied sector by sector.
    static std::optional<std::vector<Area>> grubAdjustSectorlist(const std::vector<Area>& areas,
                                                                 const Interfaces::AreaTranslator& translator);
    // Rewrites the block list of a core's first sector for a core that lies on areas (its first
    // sector first), loading as many sectors as before. false, with the sector untouched, when
    // the areas hold too few sectors or more pieces than the list has room for.
    static bool patchCoreImg(const std::vector<Area>& areas, std::uint8_t* coreSector, std::size_t length);
    // Points GRUB 2 boot code (in the MBR or a partition's boot sector) at the core's first sector.
    static bool patchBootSector(const std::vector<Area>& areas, std::uint8_t* sector, std::size_t length);
};

} // namespace Platform
