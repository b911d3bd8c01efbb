#include "platform/fs/fat/allocation_table.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/fs/fat/layout.h"
#include "platform/storage/byte_io.h"

namespace Platform::Fat {

namespace Info = Layout::FsInfo;

std::optional<AllocationTable> AllocationTable::load(Ref<Interfaces::Storage> storage, const BootSector& boot)
{
    AllocationTable table(std::move(storage), boot);
    table.maxCluster_ = boot.maxCluster();
    const std::uint64_t entries = std::uint64_t(table.maxCluster_) + 1;
    const std::uint64_t needed =
        boot.type == FsFat12 ? (entries * 3 + 1) / 2 : entries * (boot.type == FsFat16 ? 2 : 4);
    if (needed > boot.fatBytes() ||
        (boot.type == FsFat32 && (boot.rootCluster < 2 || boot.rootCluster > table.maxCluster_))) {
        Error::set(Error::Corrupt, "the FAT cannot hold the volume's clusters");
        return std::nullopt;
    }
    if (boot.fsInfoSector != 0) {
        const std::uint64_t offset = std::uint64_t(boot.fsInfoSector) * boot.bytesPerSector;
        const auto info = readBytes(*table.storage_, offset, BiosParameterBlock::kMinimumSectorSize);
        ByteView in(info);
        if (in.u32(Info::kLeadSignature) == Info::kLead && in.u32(Info::kStructSignature) == Info::kStruct)
            table.fsInfoOffset_ = offset;
    }
    table.fat_ = readBytes(*table.storage_, boot.fatOffset(), std::size_t(boot.fatBytes()));
    if (table.fat_.empty()) {
        Error::set(Error::Io, "the FAT cannot be read");
        return std::nullopt;
    }
    for (std::uint32_t cluster = 2; cluster <= table.maxCluster_; ++cluster)
        table.freeClusters_ += table.get(cluster) == 0;
    return table;
}

std::uint32_t AllocationTable::endMark() const
{
    return boot_.type == FsFat12 ? 0xFFF : boot_.type == FsFat16 ? 0xFFFF : 0x0FFFFFFF;
}

std::uint32_t AllocationTable::get(std::uint32_t cluster) const
{
    ByteView in(fat_);
    switch (boot_.type) {
    case FsFat12: {
        const std::uint16_t pair = in.u16(cluster + cluster / 2);
        return cluster & 1 ? pair >> 4 : pair & 0xFFF;
    }
    case FsFat16:
        return in.u16(std::size_t(cluster) * 2);
    default:
        return in.u32(std::size_t(cluster) * 4) & 0x0FFFFFFF;
    }
}

void AllocationTable::set(std::uint32_t cluster, std::uint32_t value)
{
    const bool wasFree = get(cluster) == 0;
    if (wasFree != (value == 0))
        wasFree ? --freeClusters_ : ++freeClusters_;
    ByteWriter out(fat_);
    std::size_t at = 0, width = 0;
    switch (boot_.type) {
    case FsFat12: {
        at = cluster + cluster / 2;
        width = 2;
        const std::uint16_t pair = ByteView(fat_).u16(at);
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
        out.u32(at, (ByteView(fat_).u32(at) & 0xF0000000) | (value & 0x0FFFFFFF));
        break;
    }
    dirtySectors_.insert(at / boot_.bytesPerSector);
    dirtySectors_.insert((at + width - 1) / boot_.bytesPerSector);
}

std::optional<std::vector<std::uint32_t>> AllocationTable::chain(std::uint32_t first) const
{
    std::vector<std::uint32_t> clusters;
    for (std::uint32_t cluster = first; cluster != 0 && !isEnd(cluster); cluster = get(cluster)) {
        if (cluster < 2 || cluster > maxCluster_ || clusters.size() > maxCluster_) {
            // Out of range, or longer than the volume: a loop.
            Error::set(Error::Corrupt, "the cluster chain from " + std::to_string(first) + " is damaged");
            return std::nullopt;
        }
        clusters.push_back(cluster);
    }
    return clusters;
}

std::optional<std::uint32_t> AllocationTable::allocate()
{
    for (std::uint32_t i = 0; i + 1 < maxCluster_; ++i) {
        const std::uint32_t cluster = 2 + (nextFree_ - 2 + i) % (maxCluster_ - 1);
        if (get(cluster) == 0) {
            set(cluster, endMark());
            nextFree_ = cluster + 1 > maxCluster_ ? 2 : cluster + 1;
            return cluster;
        }
    }
    Error::set(Error::NoSpace);
    return std::nullopt;
}

void AllocationTable::release(const std::vector<std::uint32_t>& clusters)
{
    for (std::uint32_t cluster : clusters)
        set(cluster, 0);
}

bool AllocationTable::zeroCluster(std::uint32_t cluster)
{
    const std::vector<std::uint8_t> zeros(boot_.clusterBytes(), 0);
    return writeBytes(*storage_, clusterOffset(cluster), zeros);
}

bool AllocationTable::write()
{
    const std::uint32_t sectorBytes = boot_.bytesPerSector;
    for (std::uint64_t sector : dirtySectors_)
        for (std::uint32_t copy = 0; copy < boot_.fats; ++copy)
            if (!writeBytes(*storage_, boot_.fatOffset() + copy * boot_.fatBytes() + sector * sectorBytes,
                            std::span(fat_).subspan(std::size_t(sector * sectorBytes), sectorBytes)))
                return false;
    dirtySectors_.clear();
    if (fsInfoOffset_ == 0)
        return true;
    std::uint8_t fields[8];
    ByteWriter out(fields);
    out.u32(0, freeClusters_);
    out.u32(Info::kNextFree - Info::kFreeCount, nextFree_);
    return writeBytes(*storage_, fsInfoOffset_ + Info::kFreeCount, fields);
}

} // namespace Platform::Fat
