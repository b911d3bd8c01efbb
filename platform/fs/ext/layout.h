#pragma once
// On-disk offsets and constants of the ext2/3/4 superblock. Named once.

#include <cstddef>
#include <cstdint>

namespace Platform::Ext::Layout {

inline constexpr std::uint64_t kSuperblockOffset = 1024;
inline constexpr std::size_t kSuperblockSize = 1024;

// Superblock fields, relative to its start; little-endian.
inline constexpr std::size_t kInodesCount = 0x00;
inline constexpr std::size_t kBlocksCountLow = 0x04;
inline constexpr std::size_t kReservedBlocksLow = 0x08;
inline constexpr std::size_t kFirstDataBlock = 0x14;
inline constexpr std::size_t kLogBlockSize = 0x18;
inline constexpr std::size_t kLogClusterSize = 0x1C;
inline constexpr std::size_t kBlocksPerGroup = 0x20;
inline constexpr std::size_t kClustersPerGroup = 0x24;
inline constexpr std::size_t kInodesPerGroup = 0x28;
inline constexpr std::size_t kMagic = 0x38; // u16
inline constexpr std::size_t kRevision = 0x4C;
inline constexpr std::size_t kFirstInode = 0x54;
inline constexpr std::size_t kInodeSize = 0x58;
inline constexpr std::size_t kFeatureCompat = 0x5C;
inline constexpr std::size_t kFeatureIncompat = 0x60;
inline constexpr std::size_t kFeatureRoCompat = 0x64;
inline constexpr std::size_t kUuid = 0x68; // 16 bytes
inline constexpr std::size_t kUuidLength = 16;
inline constexpr std::size_t kReservedGdtBlocks = 0xCE;
inline constexpr std::size_t kDescriptorSize = 0xFE;
inline constexpr std::size_t kBlocksCountHigh = 0x150;
inline constexpr std::size_t kReservedBlocksHigh = 0x154;
inline constexpr std::size_t kLogGroupsPerFlex = 0x174;

inline constexpr std::uint16_t kExtMagic = 0xEF53;
inline constexpr std::uint32_t kCompatHasJournal = 0x4;
inline constexpr std::uint32_t kIncompatJournalDev = 0x8;
inline constexpr std::uint32_t kIncompat64Bit = 0x80;
inline constexpr std::uint32_t kIncompatFlexBg = 0x200;
inline constexpr std::uint32_t kRoCompatBigalloc = 0x200;
// What ext2 and ext3 know; anything beyond makes the file system ext4.
inline constexpr std::uint32_t kExt3Incompat = 0x2 | 0x4 | 0x10; // filetype, recover, meta_bg
inline constexpr std::uint32_t kExt3RoCompat = 0x1 | 0x2 | 0x4;  // sparse_super, large_file, btree_dir

inline constexpr std::uint32_t kMaxLogBlockSize = 6; // 64 KiB
inline constexpr std::uint32_t kGoodOldFirstInode = 11;
inline constexpr std::uint32_t kGoodOldInodeSize = 128;

static_assert(kLogGroupsPerFlex < kSuperblockSize && kUuid + kUuidLength <= kReservedGdtBlocks);

} // namespace Platform::Ext::Layout
