#include "platform/boot/grub.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"

#include <algorithm>
#include <span>
#include <string_view>

namespace Platform {

namespace {

// i386-pc boot sector layout (GRUB 2 boot.img and legacy stage1).
constexpr std::size_t kSectorSize = 512;
constexpr std::size_t kGrub2KernelSector = 0x5C;  // u64
constexpr std::size_t kLegacyVersion = 0x3E;      // major 3, minor 2
constexpr std::size_t kLegacyStage2Sector = 0x44; // u32
constexpr std::size_t kCodeEnd = 0x1B8;           // the Windows NT signature and the table follow
constexpr std::uint8_t kGrub2Jump[] = {0xEB, 0x63};
constexpr std::uint8_t kLegacyJump[] = {0xEB, 0x48};
// diskboot.img: 12-byte block-list entries {u64 start, u16 sectors, u16 load segment} from
// kFirstList down, ended by one with no sectors; the first loads at segment 0x820, each next one
// right after the previous.
constexpr std::size_t kFirstList = 0x1F4;
constexpr std::size_t kListEntry = 12;
constexpr std::uint16_t kFirstSegment = 0x820;
constexpr std::uint16_t kSegmentsPerSector = 0x20;
// The boot code's own messages, present in every release of both.
constexpr std::string_view kMessages("GRUB \0Geom\0Hard Disk\0Read\0 Error", 32);

bool startsWith(std::span<const std::uint8_t> sector, std::span<const std::uint8_t> jump)
{
    return std::equal(jump.begin(), jump.end(), sector.begin());
}

bool carriesMessages(std::span<const std::uint8_t> sector)
{
    const auto code = sector.first(kCodeEnd);
    return std::search(code.begin(), code.end(), kMessages.begin(), kMessages.end(),
                       [](std::uint8_t a, char b) { return a == std::uint8_t(b); }) != code.end();
}

struct BlockList {
    std::vector<Area> entries;
    std::size_t room = 0; // entries that fit without reaching the code (one slot stays the end mark)
};

bool slotIsZero(std::span<const std::uint8_t> sector, std::size_t offset)
{
    return std::all_of(sector.begin() + std::ptrdiff_t(offset), sector.begin() + std::ptrdiff_t(offset + kListEntry),
                       [](std::uint8_t byte) { return byte == 0; });
}

// The list a core's first sector holds, and how much room it has below it.
std::optional<BlockList> readBlockList(std::span<const std::uint8_t> sector)
{
    BlockList list;
    ByteView view(sector);
    std::size_t offset = kFirstList;
    std::uint32_t segment = kFirstSegment;
    for (;; offset -= kListEntry) {
        const std::uint16_t count = view.u16(offset + 8);
        if (count == 0)
            break;
        if (view.u16(offset + 10) != segment || offset < kListEntry)
            return std::nullopt;
        list.entries.push_back({view.u64(offset), count});
        segment += std::uint32_t(count) * kSegmentsPerSector;
        if (segment > 0xFFFF)
            return std::nullopt;
    }
    // Below the end mark, zeroed slots down to the code are free.
    std::size_t slots = list.entries.size() + 1;
    for (std::size_t free = offset; free >= kListEntry && slotIsZero(sector, free - kListEntry); free -= kListEntry)
        ++slots;
    list.room = slots - 1;
    if (!view.ok() || list.entries.empty())
        return std::nullopt;
    return list;
}

bool isDiskboot(std::span<const std::uint8_t> sector)
{
    constexpr std::string_view kLoading("loading\0", 8);
    return std::search(sector.begin(), sector.end(), kLoading.begin(), kLoading.end(),
                       [](std::uint8_t a, char b) { return a == std::uint8_t(b); }) != sector.end();
}

std::uint64_t sectorsIn(const std::vector<Area>& areas)
{
    std::uint64_t total = 0;
    for (const Area& area : areas)
        total += area.count;
    return total;
}

} // namespace

std::uint32_t Grub::grubBootSectorType(const std::uint8_t* sector, std::size_t length)
{
    if (sector == nullptr || length < kSectorSize)
        return NotGrub;
    const std::span<const std::uint8_t> bytes(sector, kSectorSize);
    if (bytes[510] != 0x55 || bytes[511] != 0xAA || !carriesMessages(bytes))
        return NotGrub;
    if (startsWith(bytes, kGrub2Jump))
        return Grub2;
    if (startsWith(bytes, kLegacyJump) && bytes[kLegacyVersion] == 3 && bytes[kLegacyVersion + 1] == 2)
        return GrubLegacy;
    return NotGrub;
}

std::uint64_t Grub::grubBootSectorStart(const std::uint8_t* sector, std::size_t length)
{
    switch (grubBootSectorType(sector, length)) {
    case Grub2:
        return ByteView({sector, kSectorSize}).u64(kGrub2KernelSector);
    case GrubLegacy:
        return ByteView({sector, kSectorSize}).u32(kLegacyStage2Sector);
    default:
        return 0;
    }
}

std::optional<std::vector<Area>> Grub::grubCoreImageSectors(const std::uint8_t* coreSector, std::size_t length,
                                                            std::uint64_t firstSector)
{
    const auto list = coreSector && length >= kSectorSize ? readBlockList({coreSector, kSectorSize}) : std::nullopt;
    if (!list || !isDiskboot({coreSector, kSectorSize})) {
        Error::set(Error::Corrupt, "the sector is not the first sector of a GRUB core image");
        return std::nullopt;
    }
    std::vector<Area> areas;
    appendArea(areas, {firstSector, 1});
    for (const Area& entry : list->entries)
        appendArea(areas, entry);
    return areas;
}

std::optional<std::vector<Area>> Grub::grubAdjustSectorlist(const std::vector<Area>& areas,
                                                            const Interfaces::AreaTranslator& translator)
{
    std::vector<Area> translated;
    for (const Area& area : areas) {
        const auto pieces = translator.translate(area);
        if (!pieces)
            return std::nullopt;
        for (const Area& piece : *pieces)
            appendArea(translated, piece);
    }
    return translated;
}

bool Grub::patchCoreImg(const std::vector<Area>& areas, std::uint8_t* coreSector, std::size_t length)
{
    if (coreSector == nullptr || length < kSectorSize)
        return false;
    const std::span<std::uint8_t> sector(coreSector, kSectorSize);
    const auto list = readBlockList(sector);
    if (!list || areas.empty())
        return false;
    // The sectors after the first, as many as the core loads, in entries of at most 0xFFFF.
    std::uint64_t wanted = sectorsIn(list->entries);
    if (sectorsIn(areas) < wanted + 1)
        return false;
    std::vector<Area> entries;
    bool first = true;
    for (Area area : areas) {
        if (first) {
            first = false;
            ++area.start;
            --area.count;
        }
        while (area.count > 0 && wanted > 0) {
            const std::uint64_t count = std::min({area.count, wanted, std::uint64_t(0xFFFF)});
            entries.push_back({area.start, count});
            area.start += count;
            area.count -= count;
            wanted -= count;
        }
    }
    if (entries.size() > list->room)
        return false;
    // The same sectors load to the same segments as before, so the last one still fits.
    ByteWriter writer(sector);
    std::uint32_t segment = kFirstSegment;
    for (std::size_t i = 0; i <= std::max(entries.size(), list->entries.size()); ++i) {
        const std::size_t offset = kFirstList - i * kListEntry;
        const Area entry = i < entries.size() ? entries[i] : Area{0, 0};
        writer.u64(offset, entry.start);
        writer.u16(offset + 8, std::uint16_t(entry.count));
        writer.u16(offset + 10, entry.count ? std::uint16_t(segment) : 0);
        segment += std::uint32_t(entry.count) * kSegmentsPerSector;
    }
    return writer.ok();
}

bool Grub::patchBootSector(const std::vector<Area>& areas, std::uint8_t* sector, std::size_t length)
{
    if (areas.empty() || grubBootSectorType(sector, length) != Grub2)
        return false;
    ByteWriter writer({sector, kSectorSize});
    writer.u64(kGrub2KernelSector, areas.front().start);
    return writer.ok();
}

} // namespace Platform
