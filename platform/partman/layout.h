#pragma once
// On-disk offsets of the MBR, EBR and GPT structures, named once.

#include <cstddef>
#include <cstdint>

namespace Platform::Partman::Layout {

// Master boot record and extended boot records (one sector each).
namespace Mbr {
inline constexpr std::size_t kDiskSignature = 0x1B8; // u32
inline constexpr std::size_t kEntries = 0x1BE;       // 4 entries
inline constexpr std::size_t kEntrySize = 16;
inline constexpr std::size_t kEntryCount = 4;
inline constexpr std::size_t kBootSignature = 0x1FE; // 55 AA
inline constexpr std::size_t kSectorSize = 512;
inline constexpr std::uint8_t kTypeEmpty = 0x00;
inline constexpr std::uint8_t kTypeProtective = 0xEE;
} // namespace Mbr

namespace MbrEntry {
inline constexpr std::size_t kStatus = 0;
inline constexpr std::size_t kChsStart = 1; // head, sector | cylinder high bits, cylinder low
inline constexpr std::size_t kType = 4;
inline constexpr std::size_t kChsEnd = 5;
inline constexpr std::size_t kLbaStart = 8;     // u32
inline constexpr std::size_t kSectorCount = 12; // u32
} // namespace MbrEntry
static_assert(MbrEntry::kSectorCount + 4 == Mbr::kEntrySize);
static_assert(Mbr::kEntries + Mbr::kEntryCount * Mbr::kEntrySize == Mbr::kBootSignature);

namespace GptHeader {
inline constexpr char kSignature[] = "EFI PART"; // at 0, 8 bytes
inline constexpr std::size_t kRevision = 8;
inline constexpr std::size_t kHeaderSize = 12; // u32
inline constexpr std::size_t kHeaderCrc = 16;  // u32, computed with this field zero
inline constexpr std::size_t kMyLba = 24;
inline constexpr std::size_t kAlternateLba = 32;
inline constexpr std::size_t kFirstUsableLba = 40;
inline constexpr std::size_t kLastUsableLba = 48;
inline constexpr std::size_t kDiskGuid = 56;
inline constexpr std::size_t kEntriesLba = 72;
inline constexpr std::size_t kEntryCount = 80; // u32
inline constexpr std::size_t kEntrySize = 84;  // u32
inline constexpr std::size_t kEntriesCrc = 88; // u32
inline constexpr std::size_t kMinimumSize = 92;
} // namespace GptHeader
static_assert(GptHeader::kEntriesCrc + 4 == GptHeader::kMinimumSize);

namespace GptEntry {
inline constexpr std::size_t kTypeGuid = 0;
inline constexpr std::size_t kUniqueGuid = 16;
inline constexpr std::size_t kFirstLba = 32;
inline constexpr std::size_t kLastLba = 40;
inline constexpr std::size_t kAttributes = 48;
inline constexpr std::size_t kName = 56;
inline constexpr std::size_t kMinimumSize = 128;
} // namespace GptEntry
static_assert(GptEntry::kName + 72 == GptEntry::kMinimumSize);

} // namespace Platform::Partman::Layout
