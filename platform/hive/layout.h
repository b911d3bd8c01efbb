#pragma once
// On-disk offsets of a registry hive: the base block, hive bins, cells and the records they hold.
// Little-endian throughout. Cell offsets count from the start of the hive bins (file offset 4096).

#include <cstddef>
#include <cstdint>

namespace Platform::Hive::Layout {

inline constexpr std::uint32_t kNoCell = 0xFFFFFFFF;
inline constexpr std::size_t kPageSize = 4096;

namespace BaseBlock {
inline constexpr std::size_t kSize = 4096;
inline constexpr char kSignature[] = "regf";         // at 0
inline constexpr std::size_t kPrimarySequence = 4;   // raised when a write starts
inline constexpr std::size_t kSecondarySequence = 8; // raised when it ends; equal means clean
inline constexpr std::size_t kTimestamp = 12;        // FILETIME
inline constexpr std::size_t kMajorVersion = 20;
inline constexpr std::size_t kMinorVersion = 24;
inline constexpr std::size_t kFileType = 28;   // 0 primary, 1 and 2 old-format log, 6 new-format log
inline constexpr std::size_t kFileFormat = 32; // 1
inline constexpr std::size_t kRootCell = 36;
inline constexpr std::size_t kBinsSize = 40;
inline constexpr std::size_t kClustering = 44;
inline constexpr std::size_t kFlags = 144;
inline constexpr std::size_t kChecksum = 508; // XOR of the 127 dwords before it
} // namespace BaseBlock
static_assert(BaseBlock::kChecksum == 127 * 4 && BaseBlock::kChecksum + 4 <= BaseBlock::kSize);

namespace Bin {
inline constexpr char kSignature[] = "hbin"; // at 0
inline constexpr std::size_t kOffset = 4;    // this bin's offset from the first
inline constexpr std::size_t kSize = 8;      // a multiple of 4096
inline constexpr std::size_t kTimestamp = 20;
inline constexpr std::size_t kHeaderSize = 32;
} // namespace Bin

// A cell: a signed 32-bit size (negative when allocated) including itself, a multiple of 8.
namespace Cell {
inline constexpr std::size_t kHeaderSize = 4;
inline constexpr std::uint32_t kAlignment = 8;
} // namespace Cell

// Offsets inside a cell's data, after its size field.
namespace Key { // "nk"
inline constexpr std::size_t kFlags = 2;
inline constexpr std::size_t kTimestamp = 4;
inline constexpr std::size_t kParent = 16;
inline constexpr std::size_t kSubkeyCount = 20;
inline constexpr std::size_t kVolatileSubkeyCount = 24;
inline constexpr std::size_t kSubkeyList = 28;
inline constexpr std::size_t kVolatileSubkeyList = 32;
inline constexpr std::size_t kValueCount = 36;
inline constexpr std::size_t kValueList = 40;
inline constexpr std::size_t kSecurity = 44;
inline constexpr std::size_t kClass = 48;
inline constexpr std::size_t kMaxSubkeyNameLength = 52; // low 16 bits; the rest are flags to keep
inline constexpr std::size_t kMaxClassLength = 56;
inline constexpr std::size_t kMaxValueNameLength = 60;
inline constexpr std::size_t kMaxValueDataLength = 64;
inline constexpr std::size_t kNameLength = 72;
inline constexpr std::size_t kClassLength = 74;
inline constexpr std::size_t kName = 76;
inline constexpr std::uint16_t kFlagRoot = 0x4;
inline constexpr std::uint16_t kFlagCompressedName = 0x20; // Latin-1 instead of UTF-16
} // namespace Key

namespace Value { // "vk"
inline constexpr std::size_t kNameLength = 2;
inline constexpr std::size_t kDataSize = 4; // bit 31: up to 4 bytes kept in the data offset field
inline constexpr std::size_t kData = 8;
inline constexpr std::size_t kType = 12;
inline constexpr std::size_t kFlags = 16;
inline constexpr std::size_t kName = 20;
inline constexpr std::uint32_t kInlineData = 0x80000000;
inline constexpr std::uint16_t kFlagCompressedName = 0x1;
} // namespace Value

namespace List { // "li", "lf", "lh", "ri": a count, then elements
inline constexpr std::size_t kCount = 2;
inline constexpr std::size_t kElements = 4;
} // namespace List

namespace Security { // "sk"
inline constexpr std::size_t kNext = 4;
inline constexpr std::size_t kPrevious = 8;
inline constexpr std::size_t kReferences = 12;
inline constexpr std::size_t kDescriptorSize = 16;
inline constexpr std::size_t kDescriptor = 20;
} // namespace Security

namespace BigData { // "db": segments of 16344 bytes, the last one shorter
inline constexpr std::size_t kSegmentCount = 2;
inline constexpr std::size_t kSegmentList = 4;
inline constexpr std::uint32_t kSegmentBytes = 16344;
} // namespace BigData

// Transaction logs beside a hive: a base block copy in the first sector, then either log entries
// (the format since Windows 8.1) or a bitmap of the dirty 512-byte pages and those pages.
namespace Log {
inline constexpr std::size_t kSector = 512;
inline constexpr std::uint32_t kTypeNew = 6;
inline constexpr std::uint32_t kTypeOld = 1;
inline constexpr std::uint32_t kTypeOldNt = 2;
inline constexpr char kEntrySignature[] = "HvLE";
inline constexpr std::size_t kEntrySize = 4;
inline constexpr std::size_t kEntryFlags = 8;
inline constexpr std::size_t kEntrySequence = 12;
inline constexpr std::size_t kEntryBinsSize = 16;
inline constexpr std::size_t kEntryPageCount = 20;
inline constexpr std::size_t kEntryDataHash = 24;              // Marvin32 of the bytes from kEntryPageRefs on
inline constexpr std::size_t kEntryHeaderHash = 32;            // Marvin32 of the 32 bytes before it
inline constexpr std::size_t kEntryPageRefs = 40;              // {offset in the bins, size} each
inline constexpr std::uint64_t kHashSeed = 0x82EF4D887A4E55C5; // low half 0x7A4E55C5 first
inline constexpr char kDirtySignature[] = "DIRT";              // at the second sector of an old-format log
inline constexpr std::size_t kOldPage = 512;
} // namespace Log

} // namespace Platform::Hive::Layout
