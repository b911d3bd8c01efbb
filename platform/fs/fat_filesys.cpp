#include "platform/fs/fat_filesys.h"
#include "platform/fs/listed_directory.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/core/string_util.h"
#include "platform/fs/fat_volume.h"
#include "platform/storage/byte_io.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>

namespace Platform {

namespace {

// Directory entry fields.
constexpr std::size_t kEntrySize = 32;
constexpr std::size_t kAttributes = 11;
constexpr std::size_t kCreateTime = 14; // u16, then date at 16, access date at 18
constexpr std::size_t kClusterHigh = 20;
constexpr std::size_t kWriteTime = 22; // u16, then date at 24
constexpr std::size_t kClusterLow = 26;
constexpr std::size_t kFileSize = 28;
constexpr std::uint8_t kLongName = 0x0F;
constexpr std::uint8_t kDirectory = 0x10;
constexpr std::uint8_t kVolumeLabel = 0x08;
constexpr std::uint8_t kDeleted = 0xE5;
constexpr std::uint8_t kLastLongEntry = 0x40;
constexpr std::size_t kCharsPerLongEntry = 13;
constexpr std::size_t kLongCharOffsets[kCharsPerLongEntry] = {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};
// FSInfo (FAT32).
constexpr std::size_t kFsInfoFreeCount = 488;
constexpr std::uint32_t kFsInfoLead = 0x41615252, kFsInfoStruct = 0x61417272;

void damaged()
{
    Error::set(Error::Corrupt);
}

std::uint8_t shortNameChecksum(const std::uint8_t* name)
{
    std::uint8_t sum = 0;
    for (int i = 0; i < 11; ++i)
        sum = std::uint8_t(((sum & 1) << 7) + (sum >> 1) + name[i]);
    return sum;
}

// "NAME    EXT" as "NAME.EXT".
std::string shortNameText(const std::uint8_t* raw)
{
    std::string base(reinterpret_cast<const char*>(raw), 8), ext(reinterpret_cast<const char*>(raw + 8), 3);
    base.erase(base.find_last_not_of(' ') + 1);
    ext.erase(ext.find_last_not_of(' ') + 1);
    if (!base.empty() && static_cast<std::uint8_t>(base[0]) == 0x05)
        base[0] = char(0xE5);
    return ext.empty() ? base : base + "." + ext;
}

// Long names are UTF-16 on disk and UTF-8 in the facade.
std::string utf8(const std::u16string& units)
{
    std::string text;
    for (std::size_t i = 0; i < units.size(); ++i) {
        std::uint32_t code = units[i];
        if (code >= 0xD800 && code < 0xDC00 && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000)
            code = 0x10000 + ((code - 0xD800) << 10) + (units[++i] - 0xDC00);
        if (code < 0x80) {
            text += char(code);
        } else if (code < 0x800) {
            text += char(0xC0 | code >> 6);
            text += char(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            text += char(0xE0 | code >> 12);
            text += char(0x80 | (code >> 6 & 0x3F));
            text += char(0x80 | (code & 0x3F));
        } else {
            text += char(0xF0 | code >> 18);
            text += char(0x80 | (code >> 12 & 0x3F));
            text += char(0x80 | (code >> 6 & 0x3F));
            text += char(0x80 | (code & 0x3F));
        }
    }
    return text;
}

// UTF-8 to UTF-16; a byte that starts no valid sequence stands for itself.
std::u16string utf16(const std::string& text)
{
    std::u16string units;
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const std::size_t length = byte < 0x80         ? 1
                                   : (byte >> 5) == 6  ? 2
                                   : (byte >> 4) == 14 ? 3
                                   : (byte >> 3) == 30 ? 4
                                                       : 1;
        std::uint32_t code = length == 1 ? byte : byte & (0x7F >> length);
        bool valid = i + length <= text.size();
        for (std::size_t k = 1; valid && k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            valid = (next & 0xC0) == 0x80;
            code = code << 6 | (next & 0x3F);
        }
        if (!valid) {
            code = byte;
            i += 1;
        } else {
            i += length;
        }
        if (code >= 0x10000) {
            units += char16_t(0xD800 + ((code - 0x10000) >> 10));
            units += char16_t(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            units += char16_t(code);
        }
    }
    return units;
}

std::pair<std::uint16_t, std::uint16_t> dosTimeAndDate()
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    const auto time = std::uint16_t(local.tm_hour << 11 | local.tm_min << 5 | local.tm_sec / 2);
    const auto date = std::uint16_t(std::max(0, local.tm_year - 80) << 9 | (local.tm_mon + 1) << 5 | local.tm_mday);
    return {time, date};
}

} // namespace

struct FatFilesys::Volume {
    Ref<Interfaces::Storage> storage;
    std::uint32_t type = 0;
    std::uint32_t bytesPerSector = 0;
    std::uint32_t clusterBytes = 0;
    std::uint32_t fats = 0;
    std::uint64_t fatBytes = 0;   // one FAT copy
    std::uint64_t fatOffset = 0;  // the first copy
    std::uint64_t rootOffset = 0; // FAT12/16 fixed root directory
    std::uint32_t rootEntries = 0;
    std::uint32_t rootCluster = 0; // FAT32
    std::uint64_t dataOffset = 0;
    std::uint32_t maxCluster = 0;   // highest valid cluster number
    std::uint64_t fsInfoOffset = 0; // 0 when none
    std::vector<std::uint8_t> fat;
    std::set<std::uint64_t> dirtyFatSectors;
    std::uint32_t nextFree = 2;

    bool load();
    std::uint32_t get(std::uint32_t cluster) const;
    void set(std::uint32_t cluster, std::uint32_t value);
    std::uint32_t endMark() const { return type == FsFat12 ? 0xFFF : type == FsFat16 ? 0xFFFF : 0x0FFFFFFF; }
    bool isEnd(std::uint32_t value) const { return value >= (endMark() & ~7u); }
    std::uint64_t clusterOffset(std::uint32_t cluster) const
    {
        return dataOffset + std::uint64_t(cluster - 2) * clusterBytes;
    }
    std::optional<std::vector<std::uint32_t>> chain(std::uint32_t first) const;
    std::optional<std::uint32_t> allocate();
    void release(const std::vector<std::uint32_t>& clusters);
    bool zeroCluster(std::uint32_t cluster);
    bool writeFats();
    // The byte offsets of a directory's 32-byte slots, in order.
    std::optional<std::vector<std::uint64_t>> slots(const Node& directory) const;
    std::optional<std::vector<Node>> list(const Node& directory) const;
    // Calls visit(offset, entry bytes) for each slot of the directory, reading it a cluster (or,
    // for the FAT12/16 root, a sector) at a time, until visit returns false. false on a read error.
    template <typename Visit>
    bool forEachSlot(const Node& directory, const std::vector<std::uint64_t>& offsets, Visit visit) const;
};

template <typename Visit>
bool FatFilesys::Volume::forEachSlot(const Node& directory, const std::vector<std::uint64_t>& offsets,
                                     Visit visit) const
{
    const std::uint64_t unit = directory.entryOffset == 0 && type != FsFat32 ? bytesPerSector : clusterBytes;
    std::vector<std::uint8_t> block;
    std::uint64_t blockStart = 0;
    for (std::uint64_t offset : offsets) {
        if (block.empty() || offset < blockStart || offset >= blockStart + block.size()) {
            blockStart = offset;
            block = readBytes(*storage, offset, unit);
            if (block.empty()) {
                Error::set(Error::Io);
                return false;
            }
        }
        if (!visit(offset, block.data() + (offset - blockStart)))
            break;
    }
    return true;
}

bool FatFilesys::Volume::load()
{
    const auto boot = readBytes(*storage, 0, 512);
    ByteView view(boot);
    bytesPerSector = view.u16(0x0B);
    clusterBytes = bytesPerSector * view.u8(0x0D);
    const std::uint32_t reserved = view.u16(0x0E);
    fats = view.u8(0x10);
    rootEntries = view.u16(0x11);
    const std::uint64_t total = view.u16(0x13) ? view.u16(0x13) : view.u32(0x20);
    const std::uint64_t fatSectors = view.u16(0x16) ? view.u16(0x16) : view.u32(0x24);
    fatOffset = std::uint64_t(reserved) * bytesPerSector;
    fatBytes = fatSectors * bytesPerSector;
    rootOffset = fatOffset + fats * fatBytes;
    const std::uint64_t rootBytes =
        (std::uint64_t(rootEntries) * kEntrySize + bytesPerSector - 1) / bytesPerSector * bytesPerSector;
    dataOffset = rootOffset + rootBytes;
    maxCluster = std::uint32_t((total * bytesPerSector - dataOffset) / clusterBytes) + 1;
    if (type == FsFat32) {
        rootCluster = view.u32(0x2C);
        const std::uint16_t fsInfo = view.u16(0x30);
        if (fsInfo != 0 && fsInfo != 0xFFFF && fsInfo < reserved) {
            const auto info = readBytes(*storage, std::uint64_t(fsInfo) * bytesPerSector, 512);
            ByteView infoView(info);
            if (infoView.u32(0) == kFsInfoLead && infoView.u32(484) == kFsInfoStruct)
                fsInfoOffset = std::uint64_t(fsInfo) * bytesPerSector;
        }
    }
    const std::uint64_t entries = std::uint64_t(maxCluster) + 1;
    const std::uint64_t needed = type == FsFat12 ? (entries * 3 + 1) / 2 : entries * (type == FsFat16 ? 2 : 4);
    if (needed > fatBytes || (type == FsFat32 && (rootCluster < 2 || rootCluster > maxCluster)))
        return false;
    fat = readBytes(*storage, fatOffset, std::size_t(fatBytes));
    return !fat.empty();
}

std::uint32_t FatFilesys::Volume::get(std::uint32_t cluster) const
{
    ByteView view(fat);
    switch (type) {
    case FsFat12: {
        const std::uint16_t pair = view.u16(cluster + cluster / 2);
        return cluster & 1 ? pair >> 4 : pair & 0xFFF;
    }
    case FsFat16:
        return view.u16(std::size_t(cluster) * 2);
    default:
        return view.u32(std::size_t(cluster) * 4) & 0x0FFFFFFF;
    }
}

void FatFilesys::Volume::set(std::uint32_t cluster, std::uint32_t value)
{
    ByteWriter out(fat);
    std::size_t at = 0, width = 0;
    switch (type) {
    case FsFat12: {
        at = cluster + cluster / 2;
        width = 2;
        const std::uint16_t pair = ByteView(fat).u16(at);
        out.u16(at, cluster & 1 ? std::uint16_t((pair & 0x000F) | value << 4)
                                : std::uint16_t((pair & 0xF000) | (value & 0xFFF)));
        break;
    }
    case FsFat16:
        at = std::size_t(cluster) * 2;
        width = 2;
        out.u16(at, std::uint16_t(value));
        break;
    default: // the top four bits are reserved and kept
        at = std::size_t(cluster) * 4;
        width = 4;
        out.u32(at, (ByteView(fat).u32(at) & 0xF0000000) | (value & 0x0FFFFFFF));
        break;
    }
    dirtyFatSectors.insert(at / bytesPerSector);
    dirtyFatSectors.insert((at + width - 1) / bytesPerSector);
}

std::optional<std::vector<std::uint32_t>> FatFilesys::Volume::chain(std::uint32_t first) const
{
    std::vector<std::uint32_t> clusters;
    for (std::uint32_t cluster = first; cluster != 0 && !isEnd(cluster); cluster = get(cluster)) {
        if (cluster < 2 || cluster > maxCluster || clusters.size() > maxCluster) {
            damaged(); // out of range, or longer than the volume: a loop
            return std::nullopt;
        }
        clusters.push_back(cluster);
    }
    return clusters;
}

std::optional<std::uint32_t> FatFilesys::Volume::allocate()
{
    for (std::uint32_t i = 0; i + 1 < maxCluster; ++i) {
        const std::uint32_t cluster = 2 + (nextFree - 2 + i) % (maxCluster - 1);
        if (get(cluster) == 0) {
            set(cluster, endMark());
            nextFree = cluster + 1 > maxCluster ? 2 : cluster + 1;
            return cluster;
        }
    }
    Error::set(Error::NoSpace);
    return std::nullopt;
}

void FatFilesys::Volume::release(const std::vector<std::uint32_t>& clusters)
{
    for (std::uint32_t cluster : clusters)
        set(cluster, 0);
}

bool FatFilesys::Volume::zeroCluster(std::uint32_t cluster)
{
    const std::vector<std::uint8_t> zeros(clusterBytes, 0);
    return writeBytes(*storage, clusterOffset(cluster), zeros);
}

// Every FAT copy gets the changed sectors, then FSInfo its recounted free clusters.
bool FatFilesys::Volume::writeFats()
{
    for (std::uint64_t sector : dirtyFatSectors)
        for (std::uint32_t copy = 0; copy < fats; ++copy)
            if (!writeBytes(*storage, fatOffset + copy * fatBytes + sector * bytesPerSector,
                            std::span(fat).subspan(std::size_t(sector * bytesPerSector), bytesPerSector)))
                return false;
    dirtyFatSectors.clear();
    if (fsInfoOffset == 0)
        return true;
    std::uint32_t free = 0;
    for (std::uint32_t cluster = 2; cluster <= maxCluster; ++cluster)
        free += get(cluster) == 0;
    std::uint8_t fields[8];
    ByteWriter(fields).u32(0, free);
    ByteWriter(fields).u32(4, nextFree);
    return writeBytes(*storage, fsInfoOffset + kFsInfoFreeCount, fields);
}

std::optional<std::vector<std::uint64_t>> FatFilesys::Volume::slots(const Node& directory) const
{
    std::vector<std::uint64_t> offsets;
    if (directory.entryOffset == 0 && type != FsFat32) {
        for (std::uint32_t i = 0; i < rootEntries; ++i)
            offsets.push_back(rootOffset + std::uint64_t(i) * kEntrySize);
        return offsets;
    }
    const auto clusters = chain(directory.firstCluster);
    if (!clusters)
        return std::nullopt;
    for (std::uint32_t cluster : *clusters)
        for (std::uint32_t i = 0; i < clusterBytes / kEntrySize; ++i)
            offsets.push_back(clusterOffset(cluster) + std::uint64_t(i) * kEntrySize);
    return offsets;
}

std::optional<std::vector<FatFilesys::Node>> FatFilesys::Volume::list(const Node& directory) const
{
    const auto offsets = slots(directory);
    if (!offsets)
        return std::nullopt;
    std::vector<Node> nodes;
    std::u16string longName;
    std::vector<std::uint64_t> longOffsets;
    std::uint8_t longChecksum = 0;
    const bool read = forEachSlot(directory, *offsets, [&](std::uint64_t offset, const std::uint8_t* entry) {
        if (entry[0] == 0)
            return false;
        if (entry[0] == kDeleted) {
            longName.clear();
            longOffsets.clear();
            return true;
        }
        if (entry[kAttributes] == kLongName) {
            if (entry[0] & kLastLongEntry) {
                longName.clear();
                longOffsets.clear();
                longChecksum = entry[13];
            }
            std::u16string piece;
            for (std::size_t at : kLongCharOffsets) {
                const char16_t c = char16_t(entry[at] | entry[at + 1] << 8);
                if (c == 0 || c == 0xFFFF)
                    break;
                piece += c;
            }
            longName = piece + longName;
            longOffsets.push_back(offset);
            return true;
        }
        Node node;
        node.attributes = entry[kAttributes];
        node.firstCluster =
            std::uint32_t(entry[kClusterLow] | entry[kClusterLow + 1] << 8) |
            (type == FsFat32 ? std::uint32_t(entry[kClusterHigh] | entry[kClusterHigh + 1] << 8) << 16 : 0);
        node.size = ByteView({entry, kEntrySize}).u32(kFileSize);
        node.entryOffset = offset;
        std::copy_n(entry, node.shortName.size(), node.shortName.begin());
        if (!longName.empty() && longChecksum == shortNameChecksum(entry)) {
            node.name = utf8(longName);
            node.longNameOffsets = longOffsets;
        } else {
            node.name = shortNameText(entry);
        }
        longName.clear();
        longOffsets.clear();
        if (!(node.attributes & kVolumeLabel))
            nodes.push_back(std::move(node));
        return true;
    });
    if (!read)
        return std::nullopt;
    return nodes;
}

namespace {

class FatFile : public File {
public:
    FatFile(Ref<FatFilesys> fs, FatFilesys::Node node, bool writable)
        : fs_(std::move(fs)), node_(std::move(node)), writable_(writable)
    {
    }
    ~FatFile() override { flush(); }

    std::uint64_t size() override { return node_.size; }
    bool seek(std::uint64_t position) override
    {
        position_ = position;
        return true;
    }
    std::uint64_t read(void* buffer, std::uint64_t length) override;
    std::uint64_t write(const void* buffer, std::uint64_t length) override;
    std::uint64_t resize(std::uint64_t size) override;
    bool flush() override;

private:
    // The chain, extended to hold bytes; new clusters are zeroed unless the caller fills them.
    // Nothing on a damaged chain.
    std::optional<std::vector<std::uint32_t>> chainFor(std::uint64_t bytes, bool zeroNew);
    // Moves bytes between the buffer and the file at the position, one transfer per run of
    // consecutive clusters.
    template <typename Transfer>
    std::uint64_t transfer(const std::vector<std::uint32_t>& clusters, std::uint64_t length, Transfer move);
    bool updateEntry();

    Ref<FatFilesys> fs_;
    FatFilesys::Node node_;
    bool writable_;
    bool dirty_ = false;
    std::uint64_t position_ = 0;
};

std::optional<std::vector<std::uint32_t>> FatFile::chainFor(std::uint64_t bytes, bool zeroNew)
{
    auto& volume = fs_->volume();
    auto clusters = volume.chain(node_.firstCluster);
    if (!clusters)
        return std::nullopt;
    const std::uint64_t needed = (bytes + volume.clusterBytes - 1) / volume.clusterBytes;
    while (clusters->size() < needed) {
        const auto cluster = volume.allocate();
        if (!cluster || (zeroNew && !volume.zeroCluster(*cluster)))
            return std::nullopt;
        if (clusters->empty())
            node_.firstCluster = *cluster;
        else
            volume.set(clusters->back(), *cluster);
        clusters->push_back(*cluster);
        dirty_ = true;
    }
    return clusters;
}

template <typename Transfer>
std::uint64_t FatFile::transfer(const std::vector<std::uint32_t>& clusters, std::uint64_t length, Transfer move)
{
    auto& volume = fs_->volume();
    std::uint64_t done = 0;
    while (done < length) {
        const std::uint64_t index = position_ / volume.clusterBytes, within = position_ % volume.clusterBytes;
        if (index >= clusters.size()) {
            damaged(); // the chain is shorter than the size says
            break;
        }
        // Extend the run while the following clusters lie right behind each other.
        std::uint64_t last = index;
        std::uint64_t span = volume.clusterBytes - within;
        while (span < length - done && last + 1 < clusters.size() && clusters[last + 1] == clusters[last] + 1) {
            ++last;
            span += volume.clusterBytes;
        }
        const std::uint64_t chunk = std::min<std::uint64_t>(length - done, span);
        if (!move(volume.clusterOffset(clusters[index]) + within, done, chunk))
            break;
        done += chunk;
        position_ += chunk;
    }
    return done;
}

std::uint64_t FatFile::read(void* buffer, std::uint64_t length)
{
    if (position_ >= node_.size)
        return 0;
    length = std::min<std::uint64_t>(length, node_.size - position_);
    auto& volume = fs_->volume();
    const auto clusters = volume.chain(node_.firstCluster);
    if (!clusters)
        return 0;
    auto* out = static_cast<std::uint8_t*>(buffer);
    return transfer(*clusters, length, [&](std::uint64_t offset, std::uint64_t at, std::uint64_t count) {
        return readBytes(*volume.storage, offset, {out + at, count});
    });
}

std::uint64_t FatFile::write(const void* buffer, std::uint64_t length)
{
    if (!writable_ || position_ + length > 0xFFFFFFFF) {
        Error::set(writable_ ? Error::TooLarge : Error::ReadOnly);
        return 0;
    }
    auto& volume = fs_->volume();
    // A gap behind the end reads as zeros; the clusters written here need no zeroing first.
    if (position_ > node_.size && resize(position_) != position_)
        return 0;
    const auto clusters = chainFor(position_ + length, false);
    if (!clusters)
        return 0;
    const auto* in = static_cast<const std::uint8_t*>(buffer);
    const std::uint64_t done =
        transfer(*clusters, length, [&](std::uint64_t offset, std::uint64_t at, std::uint64_t count) {
            return writeBytes(*volume.storage, offset, {in + at, count});
        });
    if (position_ > node_.size) {
        node_.size = std::uint32_t(position_);
        dirty_ = true;
    }
    return done;
}

std::uint64_t FatFile::resize(std::uint64_t newSize)
{
    if (!writable_ || newSize > 0xFFFFFFFF)
        return node_.size;
    auto& volume = fs_->volume();
    if (newSize > node_.size) {
        // New clusters come zeroed; the tail of the last old cluster is zeroed here.
        const auto clusters = chainFor(newSize, true);
        if (!clusters)
            return node_.size;
        const std::uint64_t tailEnd = std::min<std::uint64_t>(newSize, (node_.size + volume.clusterBytes - 1) /
                                                                           volume.clusterBytes * volume.clusterBytes);
        if (tailEnd > node_.size) {
            const std::vector<std::uint8_t> zeros(std::size_t(tailEnd - node_.size), 0);
            const std::uint64_t index = node_.size / volume.clusterBytes;
            writeBytes(*volume.storage, volume.clusterOffset((*clusters)[index]) + node_.size % volume.clusterBytes,
                       zeros);
        }
    } else if (newSize < node_.size) {
        const auto clusters = volume.chain(node_.firstCluster);
        if (!clusters)
            return node_.size;
        const std::size_t keep = std::size_t((newSize + volume.clusterBytes - 1) / volume.clusterBytes);
        if (keep < clusters->size()) {
            volume.release({clusters->begin() + std::ptrdiff_t(keep), clusters->end()});
            if (keep == 0)
                node_.firstCluster = 0;
            else
                volume.set((*clusters)[keep - 1], volume.endMark());
        }
    }
    node_.size = std::uint32_t(newSize);
    dirty_ = true;
    return node_.size;
}

bool FatFile::updateEntry()
{
    std::uint8_t fields[kEntrySize - kClusterHigh];
    const auto [time, date] = dosTimeAndDate();
    ByteWriter out(fields);
    const auto current = readBytes(*fs_->volume().storage, node_.entryOffset + kClusterHigh, sizeof fields);
    if (current.empty())
        return false;
    std::copy(current.begin(), current.end(), fields);
    out.u16(kClusterHigh - kClusterHigh, std::uint16_t(node_.firstCluster >> 16));
    out.u16(kWriteTime - kClusterHigh, time);
    out.u16(kWriteTime + 2 - kClusterHigh, date);
    out.u16(kClusterLow - kClusterHigh, std::uint16_t(node_.firstCluster));
    out.u32(kFileSize - kClusterHigh, node_.size);
    return writeBytes(*fs_->volume().storage, node_.entryOffset + kClusterHigh, fields);
}

bool FatFile::flush()
{
    if (!dirty_)
        return true;
    dirty_ = false;
    return updateEntry() && fs_->volume().writeFats();
}

} // namespace

FatFilesys::FatFilesys(std::unique_ptr<Volume> volume, bool readOnly) : volume_(std::move(volume)), readOnly_(readOnly)
{
}

FatFilesys::~FatFilesys() = default;

Ref<FatFilesys> FatFilesys::open(Ref<Interfaces::Storage> storage, bool readOnly)
{
    if (!storage)
        return {};
    const auto layout = FatVolume::detect(*storage);
    if (!layout)
        return {};
    auto volume = std::make_unique<Volume>();
    volume->storage = std::move(storage);
    volume->type = layout->type;
    if (!volume->load()) {
        damaged();
        return {};
    }
    return makeRef<FatFilesys>(std::move(volume), readOnly);
}

// Walks the path case-insensitively; a directory met twice on the way is a loop.
std::optional<FatFilesys::Node> FatFilesys::lookup(const std::string& path)
{
    Node node;
    node.attributes = kDirectory;
    node.firstCluster = volume_->type == FsFat32 ? volume_->rootCluster : 0;
    std::set<std::uint32_t> visited{node.firstCluster};
    for (const auto& part : StringUtil::split(path, "/")) {
        if (part.empty() || part == ".")
            continue;
        if (!node.isDirectory()) {
            Error::set(Error::PathNotFound);
            return std::nullopt;
        }
        const auto children = volume_->list(node);
        if (!children)
            return std::nullopt;
        const auto found = std::find_if(children->begin(), children->end(), [&](const Node& child) {
            return StringUtil::lower(child.name) == StringUtil::lower(part);
        });
        if (found == children->end()) {
            Error::set(Error::PathNotFound);
            return std::nullopt;
        }
        if (found->isDirectory() && part != ".." && !visited.insert(found->firstCluster).second) {
            damaged();
            return std::nullopt;
        }
        node = *found;
        if (node.isDirectory() && node.firstCluster == 0 && volume_->type == FsFat32)
            node.firstCluster = volume_->rootCluster; // ".." to the root
        if (node.isDirectory() && node.firstCluster == 0)
            node.entryOffset = 0; // the FAT12/16 root
    }
    return node;
}

namespace {

bool validShortChar(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("!#$%&'()-@^_`{}~", c) != nullptr;
}

// The 8.3 name for a long name: its own upper-case form when that fits, else BASE~N.EXT.
std::array<std::uint8_t, 11> shortNameFor(const std::string& name, const std::set<std::string>& taken,
                                          bool& needsLongName)
{
    const auto dot = name.rfind('.');
    std::string base = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
    std::string ext = dot == std::string::npos || dot == 0 ? "" : name.substr(dot + 1);
    const auto clean = [](const std::string& text) {
        std::string out;
        for (char c : text)
            if (validShortChar(c))
                out += char(std::toupper(static_cast<unsigned char>(c)));
        return out;
    };
    const std::string cleanBase = clean(base), cleanExt = clean(ext).substr(0, 3);
    const bool fits = cleanBase == base && clean(ext) == ext && !base.empty() && base.size() <= 8 && ext.size() <= 3;
    needsLongName = !fits;
    const auto compose = [&](const std::string& b) {
        std::array<std::uint8_t, 11> raw;
        raw.fill(' ');
        std::copy_n(b.begin(), std::min<std::size_t>(b.size(), 8), raw.begin());
        std::copy_n(cleanExt.begin(), cleanExt.size(), raw.begin() + 8);
        return raw;
    };
    const auto text = [](const std::array<std::uint8_t, 11>& raw) {
        return StringUtil::lower(shortNameText(raw.data()));
    };
    if (fits && !taken.count(text(compose(cleanBase))))
        return compose(cleanBase);
    needsLongName = true;
    for (int n = 1; n < 1000000; ++n) {
        const std::string tail = "~" + std::to_string(n);
        const auto candidate = compose((cleanBase.empty() ? "_" : cleanBase).substr(0, 8 - tail.size()) + tail);
        if (!taken.count(text(candidate)))
            return candidate;
    }
    return compose("_");
}

} // namespace

std::optional<FatFilesys::Node> FatFilesys::createEntry(const std::string& path, std::uint8_t attributes,
                                                        std::uint32_t firstCluster)
{
    const auto slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const auto parent = lookup(slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash));
    const std::u16string units = utf16(name);
    if (!parent || !parent->isDirectory() || name.empty() || units.size() > 255)
        return std::nullopt;
    const auto children = volume_->list(*parent);
    if (!children)
        return std::nullopt;
    std::set<std::string> taken;
    for (const auto& child : *children) {
        if (StringUtil::lower(child.name) == StringUtil::lower(name)) {
            Error::set(Error::Exists);
            return std::nullopt;
        }
        taken.insert(StringUtil::lower(shortNameText(child.shortName.data())));
    }
    bool needsLongName = false;
    const auto shortName = shortNameFor(name, taken, needsLongName);
    const std::size_t longEntries = needsLongName ? (units.size() + kCharsPerLongEntry - 1) / kCharsPerLongEntry : 0;
    const std::size_t needed = longEntries + 1;

    // A run of free slots, extending a cluster-based directory when there is none.
    auto slots = volume_->slots(*parent);
    if (!slots)
        return std::nullopt;
    std::size_t run = 0, first = 0, slot = 0;
    if (!volume_->forEachSlot(*parent, *slots, [&](std::uint64_t, const std::uint8_t* entry) {
            const bool free = entry[0] == 0 || entry[0] == kDeleted;
            run = free ? run + 1 : 0;
            if (run == 1)
                first = slot;
            ++slot;
            return run < needed;
        }))
        return std::nullopt;
    while (run < needed) {
        if (parent->entryOffset == 0 && volume_->type != FsFat32) {
            Error::set(Error::NoSpace); // the FAT12/16 root directory has a fixed size
            return std::nullopt;
        }
        const auto clusters = volume_->chain(parent->firstCluster);
        const auto cluster = volume_->allocate();
        if (!clusters || !cluster || !volume_->zeroCluster(*cluster))
            return std::nullopt;
        volume_->set(clusters->back(), *cluster);
        if (run == 0)
            first = slots->size();
        for (std::uint32_t i = 0; i < volume_->clusterBytes / kEntrySize; ++i)
            slots->push_back(volume_->clusterOffset(*cluster) + std::uint64_t(i) * kEntrySize);
        run += volume_->clusterBytes / kEntrySize;
    }

    const std::uint8_t checksum = shortNameChecksum(shortName.data());
    for (std::size_t k = 0; k < longEntries; ++k) {
        const std::size_t sequence = longEntries - k; // written last piece first
        std::uint8_t entry[kEntrySize] = {};
        entry[0] = std::uint8_t(sequence | (k == 0 ? kLastLongEntry : 0));
        entry[kAttributes] = kLongName;
        entry[13] = checksum;
        for (std::size_t c = 0; c < kCharsPerLongEntry; ++c) {
            const std::size_t index = (sequence - 1) * kCharsPerLongEntry + c;
            const std::uint16_t unit = index < units.size()    ? std::uint16_t(units[index])
                                       : index == units.size() ? 0
                                                               : 0xFFFF;
            ByteWriter(entry).u16(kLongCharOffsets[c], unit);
        }
        if (!writeBytes(*volume_->storage, (*slots)[first + k], entry))
            return std::nullopt;
    }
    std::uint8_t entry[kEntrySize] = {};
    std::copy(shortName.begin(), shortName.end(), entry);
    entry[kAttributes] = attributes;
    const auto [time, date] = dosTimeAndDate();
    ByteWriter out(entry);
    out.u16(kCreateTime, time);
    out.u16(kCreateTime + 2, date);
    out.u16(kCreateTime + 4, date);
    out.u16(kWriteTime, time);
    out.u16(kWriteTime + 2, date);
    out.u16(kClusterHigh, std::uint16_t(firstCluster >> 16));
    out.u16(kClusterLow, std::uint16_t(firstCluster));
    const std::uint64_t offset = (*slots)[first + longEntries];
    if (!writeBytes(*volume_->storage, offset, entry) || !volume_->writeFats())
        return std::nullopt;
    Node node;
    node.name = name;
    node.attributes = attributes;
    node.firstCluster = firstCluster;
    node.entryOffset = offset;
    return node;
}

Ref<File> FatFilesys::openFile(const std::string& path, std::uint32_t flags)
{
    const bool write = (flags & OpenFlags::Write) != 0;
    if (write && readOnly_) {
        Error::set(Error::ReadOnly);
        return {};
    }
    auto node = lookup(path);
    if (!node && (flags & OpenFlags::Create) && Error::get() == Error::PathNotFound)
        node = createEntry(path, 0x20, 0); // archive bit, as new files get
    if (!node)
        return {};
    if (node->isDirectory()) {
        Error::set(Error::IsDirectory);
        return {};
    }
    auto file = makeRef<FatFile>(Ref<FatFilesys>(this), *node, write);
    if (flags & OpenFlags::Truncate)
        file->resize(0);
    return file;
}

Ref<Directory> FatFilesys::openDirectory(const std::string& path)
{
    const auto node = lookup(path);
    if (!node)
        return {};
    if (!node->isDirectory()) {
        Error::set(Error::NotDirectory);
        return {};
    }
    const auto children = volume_->list(*node);
    if (!children)
        return {};
    std::vector<DirectoryEntry> entries;
    for (const auto& child : *children)
        if (child.name != "." && child.name != "..")
            entries.push_back({child.name, child.isDirectory() ? 1u : 0u, child.size});
    return makeRef<ListedDirectory>(std::move(entries));
}

bool FatFilesys::createDirectory(const std::string& path)
{
    if (readOnly_) {
        Error::set(Error::ReadOnly);
        return false;
    }
    const auto slash = path.rfind('/');
    const auto parent = lookup(slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash));
    const auto cluster = parent ? volume_->allocate() : std::nullopt;
    if (!cluster || !volume_->zeroCluster(*cluster))
        return false;
    // "." and ".." first, then the entry in the parent.
    const std::uint32_t parentCluster =
        parent->firstCluster == volume_->rootCluster && volume_->type == FsFat32 ? 0 : parent->firstCluster;
    for (const auto& [name, target, index] :
         {std::tuple{".          ", *cluster, 0}, std::tuple{"..         ", parentCluster, 1}}) {
        std::uint8_t entry[kEntrySize] = {};
        std::memcpy(entry, name, 11);
        entry[kAttributes] = kDirectory;
        ByteWriter(entry).u16(kClusterHigh, std::uint16_t(target >> 16));
        ByteWriter(entry).u16(kClusterLow, std::uint16_t(target));
        if (!writeBytes(*volume_->storage, volume_->clusterOffset(*cluster) + std::uint64_t(index) * kEntrySize, entry))
            return false;
    }
    if (!createEntry(path, kDirectory, *cluster)) {
        volume_->release({*cluster});
        volume_->writeFats();
        return false;
    }
    return true;
}

bool FatFilesys::removeFile(const std::string& path)
{
    if (readOnly_) {
        Error::set(Error::ReadOnly);
        return false;
    }
    const auto node = lookup(path);
    if (!node)
        return false;
    if (node->isDirectory()) {
        Error::set(Error::IsDirectory);
        return false;
    }
    const auto clusters = volume_->chain(node->firstCluster);
    if (!clusters)
        return false;
    const std::uint8_t deleted = kDeleted;
    for (std::uint64_t offset : node->longNameOffsets)
        writeBytes(*volume_->storage, offset, {&deleted, 1});
    if (!writeBytes(*volume_->storage, node->entryOffset, {&deleted, 1}))
        return false;
    volume_->release(*clusters);
    return volume_->writeFats();
}

bool FatFilesys::flush()
{
    return volume_->writeFats() && volume_->storage->flush();
}

} // namespace Platform
