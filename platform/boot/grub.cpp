#include "platform/boot/grub.h"

#include "platform/core/bytes.h"

#include <algorithm>
#include <span>
#include <string_view>

namespace Platform {

namespace {

// i386-pc boot sector layout (GRUB 2 boot.img and legacy stage1).
constexpr std::size_t kSectorSize = 512;
constexpr std::size_t kGrub2KernelSector = 0x5C;  // u64
constexpr std::size_t kLegacyVersion = 0x3E;      // major 3, minor 2
constexpr std::size_t kLegacyStage2Sector = 0x44; // u32
constexpr std::size_t kCodeEnd = 0x1B8;           // the Windows NT signature and the table follow
constexpr std::uint8_t kGrub2Jump[] = {0xEB, 0x63};
constexpr std::uint8_t kLegacyJump[] = {0xEB, 0x48};
// The boot code's own messages, present in every release of both.
constexpr std::string_view kMessages("GRUB \0Geom\0Hard Disk\0Read\0 Error", 32);

bool startsWith(std::span<const std::uint8_t> sector, std::span<const std::uint8_t> jump)
{
    return std::equal(jump.begin(), jump.end(), sector.begin());
}

bool carriesMessages(std::span<const std::uint8_t> sector)
{
    const auto code = sector.first(kCodeEnd);
    return std::search(code.begin(), code.end(), kMessages.begin(), kMessages.end(),
                       [](std::uint8_t a, char b) { return a == std::uint8_t(b); }) != code.end();
}

} // namespace

std::uint32_t Grub::grubBootSectorType(const std::uint8_t* sector, std::size_t length)
{
    if (sector == nullptr || length < kSectorSize)
        return NotGrub;
    const std::span<const std::uint8_t> bytes(sector, kSectorSize);
    if (bytes[510] != 0x55 || bytes[511] != 0xAA || !carriesMessages(bytes))
        return NotGrub;
    if (startsWith(bytes, kGrub2Jump))
        return Grub2;
    if (startsWith(bytes, kLegacyJump) && bytes[kLegacyVersion] == 3 && bytes[kLegacyVersion + 1] == 2)
        return GrubLegacy;
    return NotGrub;
}

std::uint64_t Grub::grubBootSectorStart(const std::uint8_t* sector, std::size_t length)
{
    switch (grubBootSectorType(sector, length)) {
    case Grub2:
        return ByteView({sector, kSectorSize}).u64(kGrub2KernelSector);
    case GrubLegacy:
        return ByteView({sector, kSectorSize}).u32(kLegacyStage2Sector);
    default:
        return 0;
    }
}

} // namespace Platform
