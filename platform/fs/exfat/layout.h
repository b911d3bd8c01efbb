#pragma once
// On-disk offsets and constants of the exFAT boot region. Named once.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Platform::Exfat::Layout {

inline constexpr char kSignature[] = "EXFAT   "; // at 3
inline constexpr std::size_t kMustBeZero = 11;   // 53 bytes up to 63
inline constexpr std::size_t kMustBeZeroLength = 53;
inline constexpr std::size_t kPartitionOffset = 0x40; // u64
inline constexpr std::size_t kVolumeLength = 0x48;    // u64
inline constexpr std::size_t kVolumeSerial = 0x64;    // u32
inline constexpr std::size_t kVolumeFlags = 106;      // 2 bytes, not in the checksum
inline constexpr std::size_t kPercentInUse = 112;     // not in the checksum
inline constexpr std::size_t kBytesPerSectorShift = 0x6C;
inline constexpr std::size_t kBootSignature = 0x1FE;
inline constexpr std::uint32_t kRegionSectors = 12;
inline constexpr std::uint32_t kChecksumSector = 11;

static_assert(kVolumeSerial + 4 <= kVolumeFlags && kPercentInUse < kBootSignature);
static_assert(kChecksumSector < kRegionSectors);

} // namespace Platform::Exfat::Layout
