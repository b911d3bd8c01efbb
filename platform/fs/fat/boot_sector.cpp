#include "platform/fs/fat/boot_sector.h"

#include "platform/core/bytes.h"
#include "platform/fs/fat/layout.h"
#include "platform/fs/filesys_base.h"
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
    if (!in.ok())
        return std::nullopt;
    if (jump != 0xEB && jump != 0xE9)
        return damaged("the boot sector does not start with a jump");
    if (in.u16(L::kBootSignature) != 0xAA55)
        return damaged("the boot signature 55 AA is missing");
    if (boot.bytesPerSector < 512 || boot.bytesPerSector > 4096 || !isPowerOfTwo(boot.bytesPerSector))
        return damaged("the bytes per sector, " + std::to_string(boot.bytesPerSector) +
                       ", are not 512, 1024, 2048 or 4096");
    if (!isPowerOfTwo(boot.sectorsPerCluster) || boot.sectorsPerCluster > 128)
        return damaged("the sectors per cluster, " + std::to_string(boot.sectorsPerCluster) +
                       ", are not a power of two up to 128");
    if (boot.reservedSectors == 0)
        return damaged("there are no reserved sectors");
    if (boot.fats == 0 || boot.fats > 4)
        return damaged("the number of FATs, " + std::to_string(boot.fats) + ", is not 1 to 4");
    if (boot.totalSectors == 0)
        return damaged("the volume has no sectors");
    if (boot.fatSectors == 0)
        return damaged("the FAT has no sectors");
    if (media != 0xF0 && media < 0xF8)
        return damaged("the media descriptor " + std::to_string(media) + " is not 240 or 248 to 255");
    const std::uint64_t metadata = boot.reservedSectors + boot.fats * boot.fatSectors + rootDirectorySectors(boot);
    if (metadata >= boot.totalSectors)
        return damaged("the FATs and the root directory take the whole volume");
    if (!fitsInStorage(storage, boot.totalSectors, boot.bytesPerSector))
        return damaged("the volume is larger than its partition");

    const std::uint64_t clusters = (boot.totalSectors - metadata) / boot.sectorsPerCluster;
    if (clusters <= kMaxFat16Clusters) {
        boot.type = clusters <= kMaxFat12Clusters ? FsFat12 : FsFat16;
        if (boot.rootEntries == 0)
            return damaged("a volume of FAT12 or FAT16 size has no root directory entries");
        boot.serialOffset = serialAfter(in, L::kExtendedSignature16);
        return boot;
    }
    boot.type = FsFat32;
    if (boot.rootEntries != 0 || fatSize16 != 0)
        return damaged("a volume of FAT32 size has root directory entries or a 16-bit FAT size");
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
