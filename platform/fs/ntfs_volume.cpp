#include "platform/fs/ntfs_volume.h"

#include "platform/core/bytes.h"
#include "platform/storage/byte_io.h"

#include <cstring>

namespace Platform {

namespace {

constexpr char kOemId[] = "NTFS    ";                 // at 3
constexpr std::size_t kBytesPerSector = 0x0B;         // u16
constexpr std::size_t kSectorsPerCluster = 0x0D;      // u8 (0xF4..0xFF: 2^(256-n))
constexpr std::size_t kHiddenSectors = 0x1C;          // u32
constexpr std::size_t kTotalSectors = 0x28;           // u64, the backup boot sector not counted
constexpr std::size_t kMftCluster = 0x30;             // u64
constexpr std::size_t kMftMirrorCluster = 0x38;       // u64
constexpr std::size_t kClustersPerMftRecord = 0x40;   // s8: clusters, or 2^-n bytes when negative
constexpr std::size_t kClustersPerIndexRecord = 0x44; // s8, the same
constexpr std::size_t kVolumeSerial = 0x48;           // u64
constexpr std::size_t kBootSignature = 0x1FE;

std::uint64_t clusterSectors(std::uint8_t encoded)
{
    if (encoded <= 0x80)
        return encoded;
    return encoded >= 0xF4 ? std::uint64_t(1) << (256 - encoded) : 0;
}

// A record size as the boot sector encodes it; 0 when impossible (Windows and ntfs-3g take
// powers of two from 256 bytes to 64 KiB).
std::uint64_t recordBytes(std::uint8_t encoded, std::uint64_t clusterBytes)
{
    const auto value = std::int8_t(encoded);
    const std::uint64_t bytes = value > 0                   ? std::uint64_t(value) * clusterBytes
                                : value < 0 && value >= -16 ? std::uint64_t(1) << -value
                                                            : 0;
    return bytes >= 256 && bytes <= 65536 && (bytes & (bytes - 1)) == 0 ? bytes : 0;
}

} // namespace

std::optional<NtfsVolume::Layout> NtfsVolume::detect(Interfaces::Storage& storage)
{
    const auto sector = readBytes(storage, 0, 512);
    if (sector.empty() || std::memcmp(sector.data() + 3, kOemId, 8) != 0)
        return std::nullopt;
    ByteView boot(sector);
    const std::uint32_t bytesPerSector = boot.u16(kBytesPerSector);
    const std::uint64_t perCluster = clusterSectors(boot.u8(kSectorsPerCluster));
    const std::uint64_t total = boot.u64(kTotalSectors);
    const std::uint64_t storageBytes = storage.elementCount() * storage.elementSize();
    if (boot.u16(kBootSignature) != 0xAA55 || bytesPerSector < 256 || bytesPerSector > 4096 ||
        (bytesPerSector & (bytesPerSector - 1)) != 0 || perCluster == 0 || (perCluster & (perCluster - 1)) != 0 ||
        total == 0 || total > storageBytes / bytesPerSector || boot.u64(kMftCluster) >= total / perCluster ||
        boot.u64(kMftMirrorCluster) >= total / perCluster ||
        recordBytes(boot.u8(kClustersPerMftRecord), perCluster * bytesPerSector) == 0 ||
        recordBytes(boot.u8(kClustersPerIndexRecord), perCluster * bytesPerSector) == 0)
        return std::nullopt;
    const std::uint64_t backup = total * bytesPerSector;
    return Layout{bytesPerSector, backup + bytesPerSector <= storageBytes ? backup : 0};
}

Ref<ByteArray> NtfsVolume::volumeId() const
{
    const auto bytes = readBytes(*storage_, kVolumeSerial, 8);
    return bytes.empty() ? Ref<ByteArray>() : ByteArray::create(bytes);
}

template <typename Change>
bool NtfsVolume::updateBootSector(Change change)
{
    auto boot = readBytes(*storage_, 0, layout_.bytesPerSector);
    if (boot.empty())
        return fail("the boot sector cannot be read");
    change(boot);
    if (layout_.backupOffset != 0 && !writeBytes(*storage_, layout_.backupOffset, boot))
        return fail("the backup boot sector cannot be written");
    if (!writeBytes(*storage_, 0, boot))
        return fail("the boot sector cannot be written");
    return true;
}

bool NtfsVolume::writeVolumeId(std::span<const std::uint8_t> id)
{
    if (id.size() != 8)
        return fail("an NTFS volume serial is 8 bytes, not " + std::to_string(id.size()));
    return updateBootSector([&](std::vector<std::uint8_t>& boot) { ByteWriter(boot).bytes(kVolumeSerial, id); });
}

bool NtfsVolume::writePartitionOffset(std::uint64_t sector)
{
    if (sector > 0xFFFFFFFF)
        return fail("the partition starts beyond what the hidden-sectors field holds");
    return updateBootSector(
        [&](std::vector<std::uint8_t>& boot) { ByteWriter(boot).u32(kHiddenSectors, std::uint32_t(sector)); });
}

bool NtfsVolume::writeBootSectorMirror()
{
    return updateBootSector([](std::vector<std::uint8_t>&) {});
}

} // namespace Platform
