#pragma once
// The file allocation table of a FAT volume, held in memory: cluster chains read, grown and
// released, and the changed sectors written to every FAT copy, with FAT32's FSInfo free count
// kept right. A chain that loops or leaves the volume is an error, never followed.

#include "platform/fs/fat/boot_sector.h"

#include <optional>
#include <set>
#include <vector>

namespace Platform::Fat {

class AllocationTable {
public:
    // The table of the volume; nothing (Error Corrupt or Io) when the boot sector's table cannot
    // hold its clusters or cannot be read.
    static std::optional<AllocationTable> load(Ref<Interfaces::Storage> storage, const BootSector& boot);

    const BootSector& boot() const { return boot_; }
    Interfaces::Storage& storage() const { return *storage_; }

    std::uint32_t get(std::uint32_t cluster) const;
    void set(std::uint32_t cluster, std::uint32_t value);
    std::uint32_t endMark() const;
    bool isEnd(std::uint32_t value) const { return value >= (endMark() & ~7u); }
    std::uint64_t clusterOffset(std::uint32_t cluster) const
    {
        return boot_.dataOffset() + std::uint64_t(cluster - 2) * boot_.clusterBytes();
    }

    // The clusters of the chain from first, in order; nothing (Error Corrupt) on a damaged chain.
    std::optional<std::vector<std::uint32_t>> chain(std::uint32_t first) const;
    // A free cluster, marked as a chain's end; nothing (Error NoSpace) when the volume is full.
    std::optional<std::uint32_t> allocate();
    void release(const std::vector<std::uint32_t>& clusters);
    bool zeroCluster(std::uint32_t cluster);
    // Every FAT copy gets the changed sectors, then FSInfo the free clusters (counted once at
    // load and kept as clusters are taken and released).
    bool write();

private:
    AllocationTable(Ref<Interfaces::Storage> storage, const BootSector& boot)
        : storage_(std::move(storage)), boot_(boot)
    {
    }

    Ref<Interfaces::Storage> storage_;
    BootSector boot_;
    std::uint32_t maxCluster_ = 0;
    std::uint64_t fsInfoOffset_ = 0; // 0 when there is no valid FSInfo sector
    std::vector<std::uint8_t> fat_;  // the first copy
    std::set<std::uint64_t> dirtySectors_;
    std::uint32_t nextFree_ = 2;
    std::uint32_t freeClusters_ = 0;
};

} // namespace Platform::Fat
