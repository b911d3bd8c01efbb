// Which partition types fit which file systems, on MBR (type bytes) and GPT (type GUIDs).

#include "platform/partman/partition.h"

#include <algorithm>
#include <span>

namespace Platform {

namespace {

constexpr Guid kBasicData = guidFromText("EBD0A0A2-B9E5-4433-87C0-68B6B72699C7");
constexpr Guid kEfiSystem = guidFromText("C12A7328-F81F-11D2-BA4B-00A0C93EC93B");
constexpr Guid kWindowsRecovery = guidFromText("DE94BBA4-06D1-4D40-A16A-BFD50179D6AC");
constexpr Guid kLinuxData = guidFromText("0FC63DAF-8483-4772-8E79-3D69D8477DE4");
constexpr Guid kExtendedBoot = guidFromText("BC13C2FF-59E6-4262-A352-B275FD6F7172");
constexpr Guid kLinuxSwap = guidFromText("0657FD6D-A4AB-43C4-84E5-0933C84B4F4F");
// Discoverable Linux partitions: root (x86, x86-64, arm64), /home, /srv, /var, /var/tmp.
constexpr Guid kLinuxDiscoverable[] = {
    guidFromText("44479540-F297-41B2-9AF7-D131D5F0458A"), guidFromText("4F68BCE3-E8CD-4DB1-96E7-FBCAF984B709"),
    guidFromText("B921B045-1DF0-41C3-AF44-4C6F280D3FAE"), guidFromText("933AC7E1-2EB4-4F13-B844-0E14E2AEF915"),
    guidFromText("3B8F8425-20E0-4F3B-907F-1A25A76F98E8"), guidFromText("4D21B016-B534-45C2-A9FB-5C16E091FD2D"),
    guidFromText("7EC6F557-3BC5-4ACA-B293-16EF5DF639D1"),
};

enum class Family { None, Fat, Windows, Linux, Swap };

Family familyOf(std::uint32_t fsType)
{
    switch (fsType) {
    case FsFat12:
    case FsFat16:
    case FsFat32:
        return Family::Fat;
    case FsExfat:
    case FsNtfs:
        return Family::Windows;
    case FsExt2:
    case FsExt3:
    case FsExt4:
    case FsXfs:
    case FsBtrfs:
        return Family::Linux;
    case FsSwap:
        return Family::Swap;
    default:
        return Family::None;
    }
}

// MBR type bytes per file system, the default first. 0x11-0x1C and 0x27 are the hidden and
// recovery variants; 0xEF the EFI system partition.
std::span<const std::uint8_t> mbrTypes(std::uint32_t fsType)
{
    static constexpr std::uint8_t kFat12[] = {0x01, 0x11, 0xEF};
    static constexpr std::uint8_t kFat16[] = {0x0E, 0x04, 0x06, 0x14, 0x16, 0x1E, 0xEF};
    static constexpr std::uint8_t kFat32[] = {0x0C, 0x0B, 0x1B, 0x1C, 0xEF, 0x27};
    static constexpr std::uint8_t kWindows[] = {0x07, 0x17, 0x27};
    static constexpr std::uint8_t kLinux[] = {0x83};
    static constexpr std::uint8_t kSwap[] = {0x82};
    switch (fsType) {
    case FsFat12:
        return kFat12;
    case FsFat16:
        return kFat16;
    case FsFat32:
        return kFat32;
    case FsExfat:
    case FsNtfs:
        return kWindows;
    case FsExt2:
    case FsExt3:
    case FsExt4:
    case FsXfs:
    case FsBtrfs:
        return kLinux;
    case FsSwap:
        return kSwap;
    default:
        return {};
    }
}

bool gptTypeFits(Family family, const Guid& type)
{
    switch (family) {
    case Family::Fat:
        return type == kBasicData || type == kEfiSystem || type == kExtendedBoot || type == kWindowsRecovery;
    case Family::Windows:
        return type == kBasicData || type == kWindowsRecovery;
    case Family::Linux:
        return type == kLinuxData || type == kExtendedBoot ||
               std::find(std::begin(kLinuxDiscoverable), std::end(kLinuxDiscoverable), type) !=
                   std::end(kLinuxDiscoverable);
    case Family::Swap:
        return type == kLinuxSwap;
    case Family::None:
        break;
    }
    return false;
}

} // namespace

bool Partition::validTypeUUID(std::uint32_t fsType, const Guid& typeUuid)
{
    std::uint8_t mbrType = 0;
    if (mbrTypeFromUUID(typeUuid, mbrType)) {
        const auto types = mbrTypes(fsType);
        return std::find(types.begin(), types.end(), mbrType) != types.end();
    }
    return gptTypeFits(familyOf(fsType), typeUuid);
}

Guid Partition::defaultTypeUUID(std::uint32_t fsType, TableType table)
{
    if (table == TableType::Mbr) {
        const auto types = mbrTypes(fsType);
        return types.empty() ? Guid{} : mbrTypeUUID(types.front());
    }
    switch (familyOf(fsType)) {
    case Family::Fat:
    case Family::Windows:
        return kBasicData;
    case Family::Linux:
        return kLinuxData;
    case Family::Swap:
        return kLinuxSwap;
    case Family::None:
        break;
    }
    return Guid{};
}

bool Partition::isEfiSystemType(const Guid& typeUuid)
{
    constexpr std::uint8_t kMbrEfiSystem = 0xEF;
    std::uint8_t mbrType = 0;
    return typeUuid == kEfiSystem || (mbrTypeFromUUID(typeUuid, mbrType) && mbrType == kMbrEfiSystem);
}

} // namespace Platform
