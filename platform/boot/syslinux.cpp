#include "platform/boot/syslinux.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

namespace Platform {

namespace {

constexpr std::size_t kSectorSize = 512;
constexpr std::uint32_t kMagic = 0x3EB202FE;
constexpr std::size_t kBootMagic = 0x1F8;
constexpr char kOemName[] = "SYSLINUX";
// Far more than any core (about 60 KiB); a bigger file is not one.
constexpr std::uint64_t kLargestCore = 1 << 20;
// An extent loads at most 127 sectors (the BIOS transfer limit of 64 KiB less one sector).
constexpr std::uint64_t kLongestExtent = 127;
constexpr std::size_t kExtentSize = 10; // u64 lba, u16 sectors

// Where ldlinux.sys keeps what an installer patches; offsets into the file.
struct CoreLayout {
    std::size_t patchArea = 0;
    std::uint16_t dataSectors = 0; // the core without its two ADV sectors
    std::uint16_t advSectors = 0;
    std::uint32_t dwords = 0; // what the checksum covers
    std::size_t advPointers = 0;
    std::size_t extents = 0;
    std::uint16_t extentSlots = 0;
};

constexpr std::size_t kDataSectors = 8, kAdvSectors = 10, kDwords = 12, kChecksum = 16, kEpaOffset = 22;
constexpr std::size_t kAdvPointerOffset = 0, kExtentOffset = 10, kExtentCount = 12;

std::uint32_t sumOfDwords(std::span<const std::uint8_t> bytes, std::uint32_t dwords)
{
    std::uint32_t sum = 0;
    ByteView view(bytes);
    for (std::uint32_t i = 0; i < dwords; ++i)
        sum += view.u32(std::size_t(i) * 4);
    return view.ok() ? sum : sum + 1; // cannot happen: the layout checked the length
}

std::optional<CoreLayout> findLayout(std::span<const std::uint8_t> core)
{
    const std::size_t firstSector = std::min(core.size(), kSectorSize);
    CoreLayout layout{};
    ByteView view(core);
    std::size_t patch = 0;
    while (patch + 24 <= firstSector && view.u32(patch) != kMagic)
        patch += 4;
    if (patch + 24 > firstSector)
        return std::nullopt;
    layout.patchArea = patch;
    layout.dataSectors = view.u16(patch + kDataSectors);
    layout.advSectors = view.u16(patch + kAdvSectors);
    layout.dwords = view.u32(patch + kDwords);
    const std::size_t epa = view.u16(patch + kEpaOffset);
    layout.advPointers = view.u16(epa + kAdvPointerOffset);
    layout.extents = view.u16(epa + kExtentOffset);
    layout.extentSlots = view.u16(epa + kExtentCount);
    if (!view.ok())
        return std::nullopt;
    const std::uint64_t covered = std::uint64_t(layout.dwords) * 4;
    const bool sound = layout.advSectors == 2 && layout.dataSectors >= 1 &&
                       covered <= std::uint64_t(layout.dataSectors) * kSectorSize &&
                       core.size() >= (std::uint64_t(layout.dataSectors) + layout.advSectors) * kSectorSize &&
                       epa + 20 <= covered && layout.advPointers + 16 <= covered &&
                       layout.extents + std::size_t(layout.extentSlots) * kExtentSize <= covered &&
                       sumOfDwords(core, layout.dwords) == kMagic;
    return sound ? std::optional(layout) : std::nullopt;
}

std::optional<std::vector<std::uint8_t>> readCore(File& file)
{
    const std::uint64_t size = file.size();
    if (size < 2 * kSectorSize || size > kLargestCore)
        return std::nullopt;
    std::vector<std::uint8_t> bytes(size);
    if (!file.seek(0) || file.read(bytes.data(), size) != size)
        return std::nullopt;
    return bytes;
}

// The file's sectors one by one, as many as wanted; nothing when the areas hold fewer.
std::optional<std::vector<std::uint64_t>> fileSectors(const Area* areas, std::size_t count, std::uint64_t wanted)
{
    std::vector<std::uint64_t> sectors;
    for (std::size_t i = 0; i < count && sectors.size() < wanted; ++i)
        for (std::uint64_t s = 0; s < areas[i].count && sectors.size() < wanted; ++s)
            sectors.push_back(areas[i].start + s);
    if (sectors.size() < wanted)
        return std::nullopt;
    return sectors;
}

// Runs of following sectors, none longer than an extent may be.
std::vector<Area> extentsOf(std::span<const std::uint64_t> sectors)
{
    std::vector<Area> extents;
    for (const std::uint64_t sector : sectors) {
        if (!extents.empty() && extents.back().start + extents.back().count == sector &&
            extents.back().count < kLongestExtent)
            ++extents.back().count;
        else
            extents.push_back({sector, 1});
    }
    return extents;
}

bool writeChangedSectors(File& file, std::span<const std::uint8_t> before, std::span<const std::uint8_t> after)
{
    for (std::size_t offset = 0; offset < after.size(); offset += kSectorSize) {
        const std::size_t length = std::min(kSectorSize, after.size() - offset);
        if (std::memcmp(before.data() + offset, after.data() + offset, length) == 0)
            continue;
        if (!file.seek(offset) || file.write(after.data() + offset, length) != length)
            return false;
    }
    return file.flush();
}

// The boot sector loads the core's first sector with "mov eax, low; mov edx, high": the two
// immediates are where its LBA goes.
std::optional<std::size_t> firstSectorPointer(std::span<const std::uint8_t> sector)
{
    std::optional<std::size_t> found;
    for (std::size_t i = 0; i + 12 <= kBootMagic; ++i) {
        if (sector[i] != 0x66 || sector[i + 1] != 0xB8 || sector[i + 6] != 0x66 || sector[i + 7] != 0xBA)
            continue;
        if (found)
            return std::nullopt; // two candidates: not the code we know
        found = i + 2;
    }
    return found;
}

} // namespace

bool Syslinux::isBootsector(const std::uint8_t* sector, std::size_t length)
{
    if (sector == nullptr || length < kSectorSize)
        return false;
    ByteView view({sector, kSectorSize});
    const bool signed_ = view.u16(510) == 0xAA55 && view.u32(kBootMagic) == kMagic;
    return view.ok() && signed_ && std::memcmp(sector + 3, kOemName, 8) == 0;
}

bool Syslinux::isCoreImg(const Ref<File>& file)
{
    if (!file)
        return false;
    const auto core = readCore(*file);
    return core && findLayout(*core);
}

bool Syslinux::patchCoreImg(const Area* areas, std::size_t count, const Ref<File>& file)
{
    const auto core = file ? readCore(*file) : std::nullopt;
    // Two checks, not "core ? findLayout(*core) : nullopt": GCC 12 at -Os then reads the layout
    // as maybe unset.
    std::optional<CoreLayout> layout;
    if (core)
        layout = findLayout(*core);
    if (!layout) {
        Error::set(Error::Corrupt, "the file is no syslinux core image");
        return false;
    }
    const auto sectors = fileSectors(areas, count, std::uint64_t(layout->dataSectors) + layout->advSectors);
    if (!sectors) {
        Error::set(Error::Corrupt, "the sector list is shorter than the core image");
        return false;
    }
    // Sector 0 is the boot sector's to load; the extents cover the rest of the core, and the
    // two sectors after it are the ADV.
    const auto extents = extentsOf(std::span(*sectors).subspan(1, layout->dataSectors - 1));
    if (extents.size() > layout->extentSlots) {
        Error::set(Error::Corrupt, "the core image lies in more pieces than its patch area lists");
        return false;
    }
    std::vector<std::uint8_t> patched = *core;
    ByteWriter writer(patched);
    for (std::size_t slot = 0; slot < layout->extentSlots; ++slot) {
        const Area extent = slot < extents.size() ? extents[slot] : Area{0, 0};
        writer.u64(layout->extents + slot * kExtentSize, extent.start);
        writer.u16(layout->extents + slot * kExtentSize + 8, std::uint16_t(extent.count));
    }
    writer.u64(layout->advPointers, (*sectors)[layout->dataSectors]);
    writer.u64(layout->advPointers + 8, (*sectors)[layout->dataSectors + 1]);
    writer.u32(layout->patchArea + kChecksum, 0);
    writer.u32(layout->patchArea + kChecksum, kMagic - sumOfDwords(patched, layout->dwords));
    if (!writer.ok())
        return false;
    return writeChangedSectors(*file, *core, patched);
}

bool Syslinux::patchBootSector(const Area* areas, std::size_t count, std::uint8_t* sector, std::size_t length)
{
    if (count == 0 || areas[0].count == 0 || !isBootsector(sector, length))
        return false;
    const auto pointer = firstSectorPointer({sector, kSectorSize});
    if (!pointer)
        return false;
    ByteWriter writer({sector, kSectorSize});
    writer.u32(*pointer, std::uint32_t(areas[0].start));
    writer.u32(*pointer + 6, std::uint32_t(areas[0].start >> 32));
    return writer.ok();
}

} // namespace Platform
