#include "platform/fs/ntfs/volume.h"
#include "platform/fs/ntfs/filesys.h"

#include "platform/core/bytes.h"
#include "platform/fs/ntfs/layout.h"
#include "platform/storage/byte_io.h"

#include <cstring>

namespace Platform {

namespace {

using namespace Ntfs::Layout::BootSector;

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
    const auto sector = readBytes(storage, 0, kMinimumSectorSize);
    if (sector.empty() || std::memcmp(sector.data() + kOemName, kOemId, 8) != 0)
        return std::nullopt;
    ByteView boot(sector);
    const std::uint32_t bytesPerSector = boot.u16(kBytesPerSector);
    const std::uint64_t perCluster = clusterSectors(boot.u8(kSectorsPerCluster));
    const std::uint64_t total = boot.u64(kTotalSectors);
    const std::uint64_t storageBytes = storage.elementCount() * storage.elementSize();
    if (boot.u16(kBootSignature) != 0xAA55)
        return damaged("the boot signature 55 AA is missing");
    if (bytesPerSector < 256 || bytesPerSector > 4096 || (bytesPerSector & (bytesPerSector - 1)) != 0)
        return damaged("the bytes per sector, " + std::to_string(bytesPerSector) +
                       ", are not a power of two from 256 to 4096");
    if (perCluster == 0 || (perCluster & (perCluster - 1)) != 0)
        return damaged("the sectors per cluster are not a power of two");
    if (total == 0 || total > storageBytes / bytesPerSector)
        return damaged(total == 0 ? "the volume has no sectors" : "the volume is larger than its partition");
    if (boot.u64(kMftCluster) >= total / perCluster)
        return damaged("the MFT starts beyond the volume's end");
    if (boot.u64(kMftMirrorCluster) >= total / perCluster)
        return damaged("the MFT mirror starts beyond the volume's end");
    if (recordBytes(boot.u8(kClustersPerMftRecord), perCluster * bytesPerSector) == 0)
        return damaged("the MFT record size is impossible");
    if (recordBytes(boot.u8(kClustersPerIndexRecord), perCluster * bytesPerSector) == 0)
        return damaged("the index record size is impossible");
    const std::uint64_t backup = total * bytesPerSector;
    return Layout{bytesPerSector, backup + bytesPerSector <= storageBytes ? backup : 0};
}

Ref<ByteArray> NtfsVolume::volumeId() const
{
    return idAt(kVolumeSerial);
}

bool NtfsVolume::writeVolumeId(std::span<const std::uint8_t> id)
{
    return updateBootSector([&](ByteWriter& out) { out.bytes(kVolumeSerial, id); });
}

Ref<Filesys> NtfsVolume::openFiles(Ref<Interfaces::Storage> storage, Access access, std::uint32_t flags) const
{
    return NtfsFilesys::open(std::move(storage), access, (flags & OpenFlags::DiscardWindowsSession) != 0);
}

} // namespace Platform
