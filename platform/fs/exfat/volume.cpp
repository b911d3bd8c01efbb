#include "platform/fs/exfat/volume.h"
#include "platform/fs/exfat/layout.h"

#include "platform/core/bytes.h"
#include "platform/storage/byte_io.h"

#include <cstring>

namespace Platform {

namespace {

using namespace Exfat::Layout;

} // namespace

std::uint32_t ExfatVolume::bootChecksum(std::span<const std::uint8_t> region, std::uint32_t bytesPerSector)
{
    std::uint32_t checksum = 0;
    const std::size_t length = std::size_t(kChecksumSector) * bytesPerSector;
    for (std::size_t i = 0; i < length && i < region.size(); ++i) {
        if (i == kVolumeFlags || i == kVolumeFlags + 1 || i == kPercentInUse)
            continue;
        checksum = ((checksum & 1) ? 0x80000000u : 0u) + (checksum >> 1) + region[i];
    }
    return checksum;
}

std::optional<std::uint32_t> ExfatVolume::detect(Interfaces::Storage& storage)
{
    const auto first = readBytes(storage, 0, 512);
    if (first.empty() || std::memcmp(first.data() + 3, kSignature, 8) != 0)
        return std::nullopt;
    ByteView boot(first);
    const std::uint32_t shift = boot.u8(kBytesPerSectorShift);
    if (shift < 9 || shift > 12)
        return damaged("the sector size exponent " + std::to_string(shift) + " is not 9 to 12");
    if (boot.u16(kBootSignature) != 0xAA55)
        return damaged("the boot signature 55 AA is missing");
    for (std::size_t i = 0; i < kMustBeZeroLength; ++i)
        if (first[kMustBeZero + i] != 0)
            return damaged("byte " + std::to_string(kMustBeZero + i) + ", which must be zero, is not");
    const std::uint32_t bytesPerSector = 1u << shift;
    if (!fitsInStorage(storage, boot.u64(kVolumeLength), bytesPerSector))
        return damaged("the volume is larger than its partition");
    const auto region = readBytes(storage, 0, std::size_t(kRegionSectors) * bytesPerSector);
    if (region.empty())
        return std::nullopt;
    if (ByteView(region).u32(std::size_t(kChecksumSector) * bytesPerSector) != bootChecksum(region, bytesPerSector))
        return damaged("the boot region fails its checksum");
    return bytesPerSector;
}

Ref<ByteArray> ExfatVolume::volumeId() const
{
    return idAt(kVolumeSerial);
}

// Writes value at offset of sector 0 in both boot regions and their checksum sectors: the backup
// region first, so that a failure leaves at least one consistent region.
bool ExfatVolume::updateBootRegions(std::size_t offset, std::span<const std::uint8_t> value)
{
    const std::size_t regionBytes = std::size_t(kRegionSectors) * bytesPerSector_;
    for (std::uint64_t start : {std::uint64_t(regionBytes), std::uint64_t(0)}) {
        auto region = readBytes(*storage_, start, regionBytes);
        if (region.empty())
            return fail(Error::Io, "the boot region at byte " + std::to_string(start) + " cannot be read");
        ByteWriter out(region);
        out.bytes(offset, value);
        const std::uint32_t checksum = bootChecksum(region, bytesPerSector_);
        for (std::size_t at = std::size_t(kChecksumSector) * bytesPerSector_; at < regionBytes; at += 4)
            out.u32(at, checksum);
        // Only sector 0 and the checksum sector change.
        if (!writeBytes(*storage_, start, std::span(region).first(bytesPerSector_)) ||
            !writeBytes(*storage_, start + std::size_t(kChecksumSector) * bytesPerSector_,
                        std::span(region).subspan(std::size_t(kChecksumSector) * bytesPerSector_)))
            return fail(Error::Io, "the boot region at byte " + std::to_string(start) + " cannot be written");
    }
    return true;
}

bool ExfatVolume::writeVolumeId(std::span<const std::uint8_t> id)
{
    return updateBootRegions(kVolumeSerial, id);
}

bool ExfatVolume::writePartitionOffset(std::uint64_t sector)
{
    std::uint8_t bytes[8];
    ByteWriter(bytes).u64(0, sector);
    return updateBootRegions(kPartitionOffset, bytes);
}

} // namespace Platform
