#pragma once
// On-disk offsets and constants of the XFS superblock and log records. Named once.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Platform::Xfs::Layout {

// Superblock fields, big-endian unless noted.
inline constexpr std::uint32_t kMagic = 0x58465342; // "XFSB", at 0
inline constexpr std::size_t kBlockSize = 4;        // u32
inline constexpr std::size_t kDataBlocks = 8;       // u64
inline constexpr std::size_t kUuid = 32;            // 16 bytes
inline constexpr std::size_t kLogStart = 48;        // u64
inline constexpr std::size_t kAgBlocks = 84;        // u32
inline constexpr std::size_t kAgCount = 88;         // u32
inline constexpr std::size_t kLogBlocks = 96;       // u32
inline constexpr std::size_t kVersion = 100;        // u16
inline constexpr std::size_t kSectorSize = 102;     // u16
inline constexpr std::size_t kAgBlockLog = 124;     // u8
inline constexpr std::size_t kIncompat = 216;       // u32
inline constexpr std::size_t kCrc = 224;            // u32, little-endian
inline constexpr std::size_t kMetaUuid = 248;       // 16 bytes
inline constexpr std::uint16_t kVersionMask = 0x000F;
inline constexpr std::uint16_t kVersionLogV2 = 0x0400;
inline constexpr std::uint32_t kIncompatMetaUuid = 0x4;

// Log records: a header sector, then data sectors whose first word carries the cycle.
inline constexpr std::size_t kBasicBlock = 512;
inline constexpr std::uint32_t kRecordMagic = 0xFEEDBABE;
inline constexpr std::size_t kRecCycle = 4, kRecVersion = 8, kRecLength = 12, kRecLsn = 16, kRecTailLsn = 24;
inline constexpr std::size_t kRecPrevBlock = 36, kRecOpCount = 40, kRecCycleData = 44, kRecFormat = 300;
inline constexpr std::size_t kRecUuid = 304, kRecSize = 320;
inline constexpr std::uint32_t kHeaderCycleSize = 32768; // data bytes covered by one header sector's cycle data
inline constexpr std::uint32_t kUnmountTid = 0xB0C0D0D0;
inline constexpr std::uint8_t kLogClient = 0xAA;
inline constexpr std::uint8_t kUnmountFlag = 0x20;
inline constexpr std::uint32_t kFormatLinuxLittleEndian = 1;
inline constexpr std::size_t kMaxRecordSearch = 2048; // basic blocks searched back from the head

static_assert(kMetaUuid + 16 <= kBasicBlock, "the superblock fields lie in its first sector");
static_assert(kRecUuid + 16 <= kRecSize && kRecSize <= kBasicBlock, "a log record header is one sector");

} // namespace Platform::Xfs::Layout
