#pragma once
// On-disk offsets of FAT12/16/32: the boot sector beyond the shared BIOS parameter block, the
// FAT32 FSInfo sector, and the 32-byte directory entries with their long-name form. Named once.

#include "platform/fs/bios_boot_sector.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Platform::Fat::Layout {

namespace BootSector {
using namespace BiosParameterBlock;
inline constexpr std::size_t kReservedSectors = 0x0E;     // u16
inline constexpr std::size_t kNumberOfFats = 0x10;        // u8
inline constexpr std::size_t kRootEntries = 0x11;         // u16, FAT12/16
inline constexpr std::size_t kTotalSectors16 = 0x13;      // u16, 0 when the u32 holds it
inline constexpr std::size_t kMedia = 0x15;               // u8
inline constexpr std::size_t kFatSize16 = 0x16;           // u16, 0 on FAT32
inline constexpr std::size_t kTotalSectors32 = 0x20;      // u32
inline constexpr std::size_t kExtendedSignature16 = 0x26; // 0x28 or 0x29, the serial follows
inline constexpr std::size_t kFatSize32 = 0x24;           // u32
inline constexpr std::size_t kRootCluster = 0x2C;         // u32
inline constexpr std::size_t kFsInfoSector = 0x30;        // u16
inline constexpr std::size_t kBackupBootSector = 0x32;    // u16
inline constexpr std::size_t kExtendedSignature32 = 0x42; // 0x28 or 0x29, the serial follows
inline constexpr std::size_t kSerialLength = 4;
} // namespace BootSector
static_assert(BootSector::kExtendedSignature32 + 1 + BootSector::kSerialLength + 11 + 8 <= BootSector::kBootSignature);

namespace FsInfo {
inline constexpr std::size_t kLeadSignature = 0;     // u32 "RRaA"
inline constexpr std::size_t kStructSignature = 484; // u32 "rrAa"
inline constexpr std::size_t kFreeCount = 488;       // u32
inline constexpr std::size_t kNextFree = 492;        // u32
inline constexpr std::uint32_t kLead = 0x41615252;
inline constexpr std::uint32_t kStruct = 0x61417272;
} // namespace FsInfo
static_assert(FsInfo::kNextFree + 4 + 16 == 512);

// A short (8.3) directory entry.
namespace Entry {
inline constexpr std::size_t kSize = 32;
inline constexpr std::size_t kName = 0; // 11 bytes, "NAME    EXT"
inline constexpr std::size_t kNameLength = 11;
inline constexpr std::size_t kAttributes = 11;        // u8
inline constexpr std::size_t kCreateTime = 14;        // u16
inline constexpr std::size_t kCreateDate = 16;        // u16
inline constexpr std::size_t kAccessDate = 18;        // u16
inline constexpr std::size_t kClusterHigh = 20;       // u16, FAT32
inline constexpr std::size_t kWriteTime = 22;         // u16
inline constexpr std::size_t kWriteDate = 24;         // u16
inline constexpr std::size_t kClusterLow = 26;        // u16
inline constexpr std::size_t kFileSize = 28;          // u32
inline constexpr std::uint8_t kEndOfDirectory = 0x00; // in the name's first byte
inline constexpr std::uint8_t kDeleted = 0xE5;        // in the name's first byte
inline constexpr std::uint8_t kStandsForE5 = 0x05;    // a first byte 0xE5 of a real name
} // namespace Entry
static_assert(Entry::kFileSize + 4 == Entry::kSize);

namespace Attribute {
inline constexpr std::uint8_t kVolumeLabel = 0x08;
inline constexpr std::uint8_t kDirectory = 0x10;
inline constexpr std::uint8_t kArchive = 0x20;
inline constexpr std::uint8_t kLongName = 0x0F; // read-only, hidden, system and label together
} // namespace Attribute

// A long-name entry: 13 UTF-16 units of the name, the last piece first on disk.
namespace LongEntry {
inline constexpr std::size_t kOrder = 0; // u8: piece number, 0x40 on the last piece
inline constexpr std::uint8_t kLastPiece = 0x40;
inline constexpr std::size_t kChecksum = 13; // u8, of the 8.3 name it belongs to
inline constexpr std::size_t kCharsPerEntry = 13;
inline constexpr std::array<std::size_t, kCharsPerEntry> kCharOffsets{1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};
inline constexpr std::size_t kMaxNameUnits = 255;
} // namespace LongEntry
static_assert(LongEntry::kCharOffsets.back() + 2 == Entry::kSize);

} // namespace Platform::Fat::Layout
