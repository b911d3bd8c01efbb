#include "platform/fs/fat_volume.h"

#include "platform/core/bytes.h"
#include "platform/storage/byte_io.h"

namespace Platform {

namespace {

// BIOS parameter block and extended boot record fields.
constexpr std::size_t kBytesPerSector = 0x0B;    // u16
constexpr std::size_t kSectorsPerCluster = 0x0D; // u8
constexpr std::size_t kReservedSectors = 0x0E;   // u16
constexpr std::size_t kNumberOfFats = 0x10;      // u8
constexpr std::size_t kRootEntries = 0x11;       // u16
constexpr std::size_t kTotalSectors16 = 0x13;    // u16
constexpr std::size_t kMedia = 0x15;             // u8
constexpr std::size_t kFatSize16 = 0x16;         // u16
constexpr std::size_t kHiddenSectors = 0x1C;     // u32
constexpr std::size_t kTotalSectors32 = 0x20;    // u32
constexpr std::size_t kFatSize32 = 0x24;         // u32
constexpr std::size_t kBackupBootSector = 0x32;  // u16, FAT32
constexpr std::size_t kExtendedSignature16 = 0x26;
constexpr std::size_t kExtendedSignature32 = 0x42;
constexpr std::size_t kBootSignature = 0x1FE;
constexpr std::uint32_t kMaxFat12Clusters = 4084;
constexpr std::uint32_t kMaxFat16Clusters = 65524;

bool isPowerOfTwo(std::uint32_t value)
{
    return value != 0 && (value & (value - 1)) == 0;
}

bool hasExtendedSignature(ByteView& boot, std::size_t at)
{
    const std::uint8_t signature = boot.u8(at);
    return signature == 0x28 || signature == 0x29;
}

} // namespace

std::optional<FatVolume::Layout> FatVolume::detect(Interfaces::Storage& storage)
{
    const auto sector = readBytes(storage, 0, 512);
    if (sector.empty())
        return std::nullopt;
    ByteView boot(sector);
    const std::uint32_t bytesPerSector = boot.u16(kBytesPerSector);
    const std::uint32_t sectorsPerCluster = boot.u8(kSectorsPerCluster);
    const std::uint32_t reserved = boot.u16(kReservedSectors);
    const std::uint32_t fats = boot.u8(kNumberOfFats);
    const std::uint32_t rootEntries = boot.u16(kRootEntries);
    const std::uint64_t total = boot.u16(kTotalSectors16) ? boot.u16(kTotalSectors16) : boot.u32(kTotalSectors32);
    const std::uint64_t fatSize = boot.u16(kFatSize16) ? boot.u16(kFatSize16) : boot.u32(kFatSize32);
    const std::uint8_t media = boot.u8(kMedia);
    const bool jump = sector[0] == 0xEB || sector[0] == 0xE9;
    if (!jump || boot.u16(kBootSignature) != 0xAA55 || bytesPerSector < 512 || bytesPerSector > 4096 ||
        !isPowerOfTwo(bytesPerSector) || !isPowerOfTwo(sectorsPerCluster) || sectorsPerCluster > 128 || reserved == 0 ||
        fats == 0 || fats > 4 || total == 0 || fatSize == 0 || (media != 0xF0 && media < 0xF8))
        return std::nullopt;
    const std::uint64_t rootSectors = (std::uint64_t(rootEntries) * 32 + bytesPerSector - 1) / bytesPerSector;
    const std::uint64_t metadata = reserved + fats * fatSize + rootSectors;
    if (metadata >= total || !fitsInStorage(storage, total, bytesPerSector))
        return std::nullopt;
    const std::uint64_t clusters = (total - metadata) / sectorsPerCluster;

    Layout layout{FsFat32, bytesPerSector, 0, 0};
    if (clusters <= kMaxFat12Clusters || clusters <= kMaxFat16Clusters) {
        layout.type = clusters <= kMaxFat12Clusters ? FsFat12 : FsFat16;
        if (rootEntries == 0)
            return std::nullopt;
        if (hasExtendedSignature(boot, kExtendedSignature16))
            layout.serialOffset = kExtendedSignature16 + 1;
        return layout;
    }
    if (rootEntries != 0 || boot.u16(kFatSize16) != 0)
        return std::nullopt;
    if (hasExtendedSignature(boot, kExtendedSignature32))
        layout.serialOffset = kExtendedSignature32 + 1;
    const std::uint16_t backup = boot.u16(kBackupBootSector);
    if (backup != 0 && backup != 0xFFFF && backup < reserved)
        layout.backupSector = backup;
    return layout;
}

Ref<ByteArray> FatVolume::volumeId() const
{
    if (layout_.serialOffset == 0)
        return {};
    const auto bytes = readBytes(*storage_, layout_.serialOffset, 4);
    return bytes.empty() ? Ref<ByteArray>() : ByteArray::create(bytes);
}

template <typename Change>
bool FatVolume::updateBootSectors(Change change)
{
    std::vector<std::uint64_t> offsets;
    if (layout_.backupSector != 0)
        offsets.push_back(layout_.backupSector * layout_.bytesPerSector);
    offsets.push_back(0);
    // Everything is read before anything is written: a failed read leaves the volume as it was.
    std::vector<std::vector<std::uint8_t>> sectors;
    for (std::uint64_t offset : offsets) {
        sectors.push_back(readBytes(*storage_, offset, layout_.bytesPerSector));
        if (sectors.back().empty())
            return fail("the boot sector at byte " + std::to_string(offset) + " cannot be read");
    }
    for (std::size_t i = 0; i < offsets.size(); ++i) {
        change(sectors[i]);
        if (!writeBytes(*storage_, offsets[i], sectors[i]))
            return fail("the boot sector at byte " + std::to_string(offsets[i]) + " cannot be written");
    }
    return true;
}

bool FatVolume::writeVolumeId(std::span<const std::uint8_t> id)
{
    if (layout_.serialOffset == 0)
        return fail("the boot sector has no volume serial field");
    if (id.size() != 4)
        return fail("a FAT volume serial is 4 bytes, not " + std::to_string(id.size()));
    return updateBootSectors(
        [&](std::vector<std::uint8_t>& sector) { ByteWriter(sector).bytes(layout_.serialOffset, id); });
}

bool FatVolume::writePartitionOffset(std::uint64_t sector)
{
    if (sector > 0xFFFFFFFF)
        return fail("the partition starts beyond what the hidden-sectors field holds");
    return updateBootSectors(
        [&](std::vector<std::uint8_t>& boot) { ByteWriter(boot).u32(kHiddenSectors, std::uint32_t(sector)); });
}

bool FatVolume::writeBootSectorMirror()
{
    if (layout_.backupSector == 0)
        return true;
    const auto boot = readBytes(*storage_, 0, layout_.bytesPerSector);
    if (boot.empty() || !writeBytes(*storage_, layout_.backupSector * layout_.bytesPerSector, boot))
        return fail("the backup boot sector cannot be updated");
    return true;
}

} // namespace Platform
