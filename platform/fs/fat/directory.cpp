#include "platform/fs/fat/directory.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/core/string_util.h"
#include "platform/fs/fat/layout.h"
#include "platform/storage/byte_io.h"

#include <algorithm>
#include <ctime>

namespace Platform::Fat {

namespace {

namespace E = Layout::Entry;
namespace A = Layout::Attribute;
namespace LE = Layout::LongEntry;

using EntryBytes = std::span<const std::uint8_t, E::kSize>;
using RawEntry = std::array<std::uint8_t, E::kSize>;

std::pair<std::uint16_t, std::uint16_t> dosTimeAndDate()
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    const auto time = std::uint16_t(local.tm_hour << 11 | local.tm_min << 5 | local.tm_sec / 2);
    const auto date = std::uint16_t(std::max(0, local.tm_year - 80) << 9 | (local.tm_mon + 1) << 5 | local.tm_mday);
    return {time, date};
}

// The byte offsets of a directory's 32-byte slots, in order.
std::optional<std::vector<std::uint64_t>> slotOffsets(const AllocationTable& table, const Node& directory)
{
    std::vector<std::uint64_t> offsets;
    if (directory.isFixedRoot(table)) {
        for (std::uint32_t i = 0; i < table.boot().rootEntries; ++i)
            offsets.push_back(table.boot().rootOffset() + std::uint64_t(i) * E::kSize);
        return offsets;
    }
    const auto clusters = table.chain(directory.firstCluster);
    if (!clusters)
        return std::nullopt;
    for (std::uint32_t cluster : *clusters)
        for (std::uint32_t i = 0; i < table.boot().clusterBytes() / E::kSize; ++i)
            offsets.push_back(table.clusterOffset(cluster) + std::uint64_t(i) * E::kSize);
    return offsets;
}

// A directory as read from disk: the offset of every slot, and the entries of the slots up to
// the end-of-directory mark (the slots behind it are free and not read).
struct Slots {
    std::vector<std::uint64_t> offsets;
    std::vector<RawEntry> inUse;
};

// Reads a cluster (or, for the fixed root, a sector) at a time, up to the end-of-directory mark.
std::optional<Slots> readSlots(const AllocationTable& table, const Node& directory)
{
    auto offsets = slotOffsets(table, directory);
    if (!offsets)
        return std::nullopt;
    Slots slots{std::move(*offsets), {}};
    const std::uint64_t unit = directory.isFixedRoot(table) ? table.boot().bytesPerSector : table.boot().clusterBytes();
    std::vector<std::uint8_t> block;
    std::uint64_t blockStart = 0;
    for (std::uint64_t offset : slots.offsets) {
        if (block.empty() || offset < blockStart || offset >= blockStart + block.size()) {
            blockStart = offset;
            block = readBytes(table.storage(), offset, unit);
            if (block.size() < E::kSize) {
                Error::set(Error::Io, "the directory at byte " + std::to_string(offset) + " cannot be read");
                return std::nullopt;
            }
        }
        const std::size_t at = std::min<std::size_t>(std::size_t(offset - blockStart), block.size() - E::kSize);
        if (block[at] == E::kEndOfDirectory)
            break;
        RawEntry& entry = slots.inUse.emplace_back();
        std::copy_n(block.begin() + std::ptrdiff_t(at), E::kSize, entry.begin());
    }
    return slots;
}

// Long-name pieces gathered until the 8.3 entry they belong to.
struct LongName {
    std::u16string units;
    std::vector<std::uint64_t> offsets;
    std::uint8_t checksum = 0;

    void clear()
    {
        units.clear();
        offsets.clear();
    }
    void add(std::uint64_t offset, ByteView& entry)
    {
        if (entry.u8(LE::kOrder) & LE::kLastPiece) {
            clear();
            checksum = entry.u8(LE::kChecksum);
        }
        std::u16string piece;
        for (std::size_t at : LE::kCharOffsets) {
            const char16_t unit = char16_t(entry.u16(at));
            if (unit == 0 || unit == 0xFFFF)
                break;
            piece += unit;
        }
        units = piece + units;
        offsets.push_back(offset);
    }
};

Node shortEntry(const AllocationTable& table, std::uint64_t offset, EntryBytes bytes, LongName& longName)
{
    ByteView entry(bytes);
    Node node;
    node.attributes = entry.u8(E::kAttributes);
    node.firstCluster = entry.u16(E::kClusterLow) |
                        (table.boot().type == FsFat32 ? std::uint32_t(entry.u16(E::kClusterHigh)) << 16 : 0);
    node.size = entry.u32(E::kFileSize);
    node.entryOffset = offset;
    std::copy_n(bytes.begin(), node.shortName.size(), node.shortName.begin());
    if (!longName.units.empty() && longName.checksum == shortNameChecksum(node.shortName)) {
        node.name = utf8(longName.units);
        node.longNameOffsets = longName.offsets;
    } else {
        node.name = shortNameText(node.shortName);
    }
    longName.clear();
    return node;
}

// The first index of a run of needed free slots, growing a cluster-based directory when there
// is none; the slots gain the new ones.
std::optional<std::size_t> freeRun(AllocationTable& table, const Node& directory, Slots& slots, std::size_t needed)
{
    std::size_t run = 0, first = 0;
    for (std::size_t slot = 0; slot < slots.offsets.size() && run < needed; ++slot) {
        const bool free = slot >= slots.inUse.size() || slots.inUse[slot][0] == E::kDeleted;
        run = free ? run + 1 : 0;
        if (run == 1)
            first = slot;
    }
    while (run < needed) {
        if (directory.isFixedRoot(table)) {
            Error::set(Error::NoSpace, "the root directory is full"); // FAT12/16: a fixed size
            return std::nullopt;
        }
        const auto clusters = table.chain(directory.firstCluster);
        const auto cluster = clusters ? table.allocate() : std::nullopt;
        if (!cluster || !table.zeroCluster(*cluster))
            return std::nullopt;
        table.set(clusters->back(), *cluster);
        if (run == 0)
            first = slots.offsets.size();
        for (std::uint32_t i = 0; i < table.boot().clusterBytes() / E::kSize; ++i)
            slots.offsets.push_back(table.clusterOffset(*cluster) + std::uint64_t(i) * E::kSize);
        run += table.boot().clusterBytes() / E::kSize;
    }
    return first;
}

// The entries of the slots in use, volume labels and deleted entries left out.
std::vector<Node> entriesOf(const AllocationTable& table, const Slots& slots)
{
    std::vector<Node> nodes;
    LongName longName;
    for (std::size_t i = 0; i < slots.inUse.size(); ++i) {
        ByteView entry(slots.inUse[i]);
        if (entry.u8(E::kName) == E::kDeleted)
            longName.clear();
        else if (entry.u8(E::kAttributes) == A::kLongName)
            longName.add(slots.offsets[i], entry);
        else if (Node node = shortEntry(table, slots.offsets[i], slots.inUse[i], longName);
                 !(node.attributes & A::kVolumeLabel))
            nodes.push_back(std::move(node));
    }
    return nodes;
}

// The long-name entries of units, the last piece first as they lie on disk.
std::vector<RawEntry> longNameEntries(const std::u16string& units, std::uint8_t checksum)
{
    const std::size_t count = (units.size() + LE::kCharsPerEntry - 1) / LE::kCharsPerEntry;
    std::vector<RawEntry> entries(count);
    for (std::size_t k = 0; k < count; ++k) {
        const std::size_t sequence = count - k;
        auto& entry = entries[k];
        entry.fill(0);
        ByteWriter out(entry);
        out.u8(LE::kOrder, std::uint8_t(sequence | (k == 0 ? LE::kLastPiece : 0)));
        out.u8(E::kAttributes, A::kLongName);
        out.u8(LE::kChecksum, checksum);
        for (std::size_t c = 0; c < LE::kCharsPerEntry; ++c) {
            const std::size_t index = (sequence - 1) * LE::kCharsPerEntry + c;
            out.u16(LE::kCharOffsets[c], index < units.size()    ? std::uint16_t(units[index])
                                         : index == units.size() ? 0
                                                                 : 0xFFFF);
        }
    }
    return entries;
}

RawEntry shortNameEntry(const ShortName& name, std::uint8_t attributes, std::uint32_t firstCluster)
{
    RawEntry entry{};
    const auto [time, date] = dosTimeAndDate();
    ByteWriter out(entry);
    out.bytes(E::kName, name);
    out.u8(E::kAttributes, attributes);
    out.u16(E::kCreateTime, time);
    out.u16(E::kCreateDate, date);
    out.u16(E::kAccessDate, date);
    out.u16(E::kWriteTime, time);
    out.u16(E::kWriteDate, date);
    out.u16(E::kClusterHigh, std::uint16_t(firstCluster >> 16));
    out.u16(E::kClusterLow, std::uint16_t(firstCluster));
    return entry;
}

} // namespace

bool Node::isDirectory() const
{
    return attributes & A::kDirectory;
}

Node rootDirectory(const AllocationTable& table)
{
    Node root;
    root.attributes = A::kDirectory;
    root.firstCluster = table.boot().type == FsFat32 ? table.boot().rootCluster : 0;
    return root;
}

std::optional<std::vector<Node>> listDirectory(const AllocationTable& table, const Node& directory)
{
    const auto slots = readSlots(table, directory);
    if (!slots)
        return std::nullopt;
    return entriesOf(table, *slots);
}

std::optional<Node> addEntry(AllocationTable& table, const Node& directory, const std::string& name,
                             std::uint8_t attributes, std::uint32_t firstCluster)
{
    const std::u16string units = utf16(name);
    if (name.empty() || units.size() > LE::kMaxNameUnits) {
        Error::set(Error::Invalid, "'" + name + "' is no FAT name");
        return std::nullopt;
    }
    // One read of the directory serves both the names taken and the free slots.
    auto slots = readSlots(table, directory);
    if (!slots)
        return std::nullopt;
    std::set<std::string> taken;
    for (const auto& sibling : entriesOf(table, *slots)) {
        if (StringUtil::lower(sibling.name) == StringUtil::lower(name)) {
            Error::set(Error::Exists);
            return std::nullopt;
        }
        taken.insert(StringUtil::lower(shortNameText(sibling.shortName)));
    }
    bool needsLongName = false;
    const ShortName shortName = shortNameFor(name, taken, needsLongName);
    const std::vector<RawEntry> longEntries =
        needsLongName ? longNameEntries(units, shortNameChecksum(shortName)) : std::vector<RawEntry>{};

    const auto first = freeRun(table, directory, *slots, longEntries.size() + 1);
    if (!first)
        return std::nullopt;
    for (std::size_t k = 0; k < longEntries.size(); ++k)
        if (!writeBytes(table.storage(), slots->offsets[*first + k], longEntries[k]))
            return std::nullopt;
    const std::uint64_t offset = slots->offsets[*first + longEntries.size()];
    if (!writeBytes(table.storage(), offset, shortNameEntry(shortName, attributes, firstCluster)) || !table.write())
        return std::nullopt;
    Node node;
    node.name = name;
    node.attributes = attributes;
    node.firstCluster = firstCluster;
    node.entryOffset = offset;
    node.shortName = shortName;
    return node;
}

bool writeDotEntries(AllocationTable& table, std::uint32_t cluster, std::uint32_t parentCluster)
{
    ShortName dot, dotDot;
    dot.fill(' ');
    dotDot.fill(' ');
    dot[0] = dotDot[0] = dotDot[1] = '.';
    const auto self = shortNameEntry(dot, A::kDirectory, cluster);
    const auto parent = shortNameEntry(dotDot, A::kDirectory, parentCluster);
    return writeBytes(table.storage(), table.clusterOffset(cluster), self) &&
           writeBytes(table.storage(), table.clusterOffset(cluster) + E::kSize, parent);
}

bool updateEntry(AllocationTable& table, const Node& node)
{
    // The fields from the high cluster half to the size, read and written as one piece.
    const auto current = readBytes(table.storage(), node.entryOffset + E::kClusterHigh, E::kSize - E::kClusterHigh);
    if (current.empty())
        return false;
    RawEntry entry{};
    std::copy(current.begin(), current.end(), entry.begin() + E::kClusterHigh);
    const auto [time, date] = dosTimeAndDate();
    ByteWriter out(entry);
    out.u16(E::kClusterHigh, std::uint16_t(node.firstCluster >> 16));
    out.u16(E::kWriteTime, time);
    out.u16(E::kWriteDate, date);
    out.u16(E::kClusterLow, std::uint16_t(node.firstCluster));
    out.u32(E::kFileSize, node.size);
    return writeBytes(table.storage(), node.entryOffset + E::kClusterHigh, std::span(entry).subspan(E::kClusterHigh));
}

bool markDeleted(AllocationTable& table, const Node& node)
{
    const std::uint8_t deleted = E::kDeleted;
    for (std::uint64_t offset : node.longNameOffsets)
        if (!writeBytes(table.storage(), offset, {&deleted, 1}))
            return false;
    return writeBytes(table.storage(), node.entryOffset, {&deleted, 1});
}

} // namespace Platform::Fat
