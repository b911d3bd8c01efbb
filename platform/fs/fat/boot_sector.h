#pragma once
// The FAT boot sector, parsed once: both the volume-id object and the file facade are built from
// this. The FAT type follows from the cluster count, as the format itself defines it.

#include "platform/core/fs_type.h"
#include "platform/storage/storage.h"

#include <cstdint>
#include <optional>
#include <span>

namespace Platform::Fat {

struct BootSector {
    FsType type = FsNone; // FsFat12, FsFat16 or FsFat32
    std::uint32_t bytesPerSector = 0;
    std::uint32_t sectorsPerCluster = 0;
    std::uint32_t reservedSectors = 0;
    std::uint32_t fats = 0;
    std::uint32_t rootEntries = 0; // FAT12/16 fixed root directory
    std::uint64_t totalSectors = 0;
    std::uint64_t fatSectors = 0;   // one FAT copy
    std::uint32_t rootCluster = 0;  // FAT32
    std::uint32_t fsInfoSector = 0; // FAT32; 0 when there is none
    std::uint32_t backupSector = 0; // FAT32 backup boot sector; 0 when there is none
    std::size_t serialOffset = 0;   // 0 when the boot sector has no extended signature

    std::uint32_t clusterBytes() const { return bytesPerSector * sectorsPerCluster; }
    std::uint64_t fatOffset() const { return std::uint64_t(reservedSectors) * bytesPerSector; }
    std::uint64_t fatBytes() const { return fatSectors * bytesPerSector; }
    std::uint64_t rootOffset() const { return fatOffset() + fats * fatBytes(); }
    std::uint64_t dataOffset() const;
    // The highest cluster number the data area holds.
    std::uint32_t maxCluster() const;
};

// The boot sector when sector holds a consistent FAT boot sector whose volume fits the storage;
// sizes are compared without products that could wrap.
std::optional<BootSector> parseBootSector(std::span<const std::uint8_t> sector, const Interfaces::Storage& storage);
std::optional<BootSector> readBootSector(Interfaces::Storage& storage);

} // namespace Platform::Fat
