#include "platform/fs/fat/boot_sector.h"

#include "platform/core/bytes.h"
#include "platform/fs/fat/layout.h"
#include "platform/storage/byte_io.h"

namespace Platform::Fat {

namespace {

namespace L = Layout::BootSector;

constexpr std::uint32_t kMaxFat12Clusters = 4084;
constexpr std::uint32_t kMaxFat16Clusters = 65524;

bool isPowerOfTwo(std::uint32_t value)
{
    return value != 0 && (value & (value - 1)) == 0;
}

std::size_t serialAfter(ByteView& boot, std::size_t signatureOffset)
{
    const std::uint8_t signature = boot.u8(signatureOffset);
    return signature == 0x28 || signature == 0x29 ? signatureOffset + 1 : 0;
}

std::uint64_t rootDirectorySectors(const BootSector& boot)
{
    return (std::uint64_t(boot.rootEntries) * Layout::Entry::kSize + boot.bytesPerSector - 1) / boot.bytesPerSector;
}

} // namespace

std::uint64_t BootSector::dataOffset() const
{
    return rootOffset() + rootDirectorySectors(*this) * bytesPerSector;
}

std::uint32_t BootSector::maxCluster() const
{
    const std::uint64_t metadata = reservedSectors + fats * fatSectors + rootDirectorySectors(*this);
    return std::uint32_t((totalSectors - metadata) / sectorsPerCluster) + 1;
}

std::optional<BootSector> parseBootSector(std::span<const std::uint8_t> sector, const Interfaces::Storage& storage)
{
    ByteView in(sector);
    BootSector boot;
    boot.bytesPerSector = in.u16(L::kBytesPerSector);
    boot.sectorsPerCluster = in.u8(L::kSectorsPerCluster);
    boot.reservedSectors = in.u16(L::kReservedSectors);
    boot.fats = in.u8(L::kNumberOfFats);
    boot.rootEntries = in.u16(L::kRootEntries);
    const std::uint16_t total16 = in.u16(L::kTotalSectors16), fatSize16 = in.u16(L::kFatSize16);
    boot.totalSectors = total16 ? total16 : in.u32(L::kTotalSectors32);
    boot.fatSectors = fatSize16 ? fatSize16 : in.u32(L::kFatSize32);
    const std::uint8_t media = in.u8(L::kMedia), jump = in.u8(L::kJump);
    if (!in.ok() || (jump != 0xEB && jump != 0xE9) || in.u16(L::kBootSignature) != 0xAA55 ||
        boot.bytesPerSector < 512 || boot.bytesPerSector > 4096 || !isPowerOfTwo(boot.bytesPerSector) ||
        !isPowerOfTwo(boot.sectorsPerCluster) || boot.sectorsPerCluster > 128 || boot.reservedSectors == 0 ||
        boot.fats == 0 || boot.fats > 4 || boot.totalSectors == 0 || boot.fatSectors == 0 ||
        (media != 0xF0 && media < 0xF8))
        return std::nullopt;
    const std::uint64_t metadata = boot.reservedSectors + boot.fats * boot.fatSectors + rootDirectorySectors(boot);
    if (metadata >= boot.totalSectors || !fitsInStorage(storage, boot.totalSectors, boot.bytesPerSector))
        return std::nullopt;

    const std::uint64_t clusters = (boot.totalSectors - metadata) / boot.sectorsPerCluster;
    if (clusters <= kMaxFat16Clusters) {
        boot.type = clusters <= kMaxFat12Clusters ? FsFat12 : FsFat16;
        if (boot.rootEntries == 0)
            return std::nullopt;
        boot.serialOffset = serialAfter(in, L::kExtendedSignature16);
        return boot;
    }
    boot.type = FsFat32;
    if (boot.rootEntries != 0 || fatSize16 != 0)
        return std::nullopt;
    boot.serialOffset = serialAfter(in, L::kExtendedSignature32);
    boot.rootCluster = in.u32(L::kRootCluster);
    const std::uint16_t fsInfo = in.u16(L::kFsInfoSector), backup = in.u16(L::kBackupBootSector);
    if (fsInfo != 0 && fsInfo != 0xFFFF && fsInfo < boot.reservedSectors)
        boot.fsInfoSector = fsInfo;
    if (backup != 0 && backup != 0xFFFF && backup < boot.reservedSectors)
        boot.backupSector = backup;
    return boot;
}

std::optional<BootSector> readBootSector(Interfaces::Storage& storage)
{
    const auto sector = readBytes(storage, 0, BiosParameterBlock::kMinimumSectorSize);
    return sector.empty() ? std::nullopt : parseBootSector(sector, storage);
}

} // namespace Platform::Fat
