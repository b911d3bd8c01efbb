#pragma once
// On-disk offsets and constants of the Btrfs superblock. Named once.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Platform::Btrfs::Layout {

inline constexpr std::uint64_t kCopies[] = {64ULL << 10, 64ULL << 20, 256ULL << 30};
inline constexpr std::size_t kSuperblockSize = 4096;
inline constexpr std::size_t kChecksum = 0x00;      // 32 bytes, crc32c in the first four
inline constexpr std::size_t kChecksummed = 0x20;   // the checksum covers the rest of the block
inline constexpr std::size_t kFsid = 0x20;          // 16 bytes
inline constexpr std::size_t kBytenr = 0x30;        // u64: the copy's own offset
inline constexpr std::size_t kMagic = 0x40;         // "_BHRfS_M"
inline constexpr std::size_t kTotalBytes = 0x70;    // u64
inline constexpr std::size_t kNumDevices = 0x88;    // u64
inline constexpr std::size_t kIncompat = 0xBC;      // u64
inline constexpr std::size_t kCsumType = 0xC4;      // u16, 0 = crc32c
inline constexpr std::size_t kMetadataUuid = 0x23B; // 16 bytes
inline constexpr std::uint64_t kIncompatMetadataUuid = 0x400;
inline constexpr char kMagicText[] = "_BHRfS_M";

static_assert(kMetadataUuid + 16 <= kSuperblockSize && kFsid + 16 <= kBytenr);

} // namespace Platform::Btrfs::Layout
