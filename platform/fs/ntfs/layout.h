#pragma once
// On-disk offsets of the NTFS boot sector beyond the shared BIOS parameter block. Named once.

#include "platform/fs/bios_boot_sector.h"

#include <cstddef>

namespace Platform::Ntfs::Layout {

namespace BootSector {
using namespace BiosParameterBlock;
inline constexpr char kOemId[] = "NTFS    "; // at kOemName, 8 bytes
// Sectors per cluster: up to 0x80 the count itself, 0xF4..0xFF mean 2^(256-n).
inline constexpr std::size_t kTotalSectors = 0x28;           // u64, the backup boot sector not counted
inline constexpr std::size_t kMftCluster = 0x30;             // u64
inline constexpr std::size_t kMftMirrorCluster = 0x38;       // u64
inline constexpr std::size_t kClustersPerMftRecord = 0x40;   // s8: clusters, or 2^-n bytes when negative
inline constexpr std::size_t kClustersPerIndexRecord = 0x44; // s8, the same
inline constexpr std::size_t kVolumeSerial = 0x48;           // u64
inline constexpr std::size_t kSerialLength = 8;
} // namespace BootSector
static_assert(BootSector::kVolumeSerial + BootSector::kSerialLength + 4 <= BootSector::kBootSignature);

} // namespace Platform::Ntfs::Layout
