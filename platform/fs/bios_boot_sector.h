#pragma once
// The boot sector FAT and NTFS share: a BIOS parameter block whose geometry and hidden-sectors
// fields say where the volume lies on its disk, and a backup copy that the checkers compare with
// sector 0 (FAT32 in its reserved sectors, NTFS behind its last sector).

#include "platform/core/bytes.h"
#include "platform/fs/filesys_base.h"

#include <cstddef>
#include <functional>

namespace Platform {

namespace BiosParameterBlock {
inline constexpr std::size_t kJump = 0;                 // EB xx 90 or E9 xx xx
inline constexpr std::size_t kOemName = 3;              // 8 bytes
inline constexpr std::size_t kBytesPerSector = 0x0B;    // u16
inline constexpr std::size_t kSectorsPerCluster = 0x0D; // u8
inline constexpr std::size_t kSectorsPerTrack = 0x18;   // u16
inline constexpr std::size_t kHeads = 0x1A;             // u16
inline constexpr std::size_t kHiddenSectors = 0x1C;     // u32
inline constexpr std::size_t kBootSignature = 0x1FE;    // 55 AA
inline constexpr std::size_t kMinimumSectorSize = 512;
} // namespace BiosParameterBlock
static_assert(BiosParameterBlock::kBootSignature + 2 == BiosParameterBlock::kMinimumSectorSize);

class BiosBootSectorVolume : public FileSysBase {
protected:
    // backupOffset: the backup boot sector's byte offset, 0 when the volume has none.
    BiosBootSectorVolume(Ref<Interfaces::Storage> storage, std::uint32_t bytesPerSector, std::uint64_t backupOffset)
        : FileSysBase(std::move(storage)), bytesPerSector_(bytesPerSector), backupOffset_(backupOffset)
    {
    }

    bool writePartitionOffset(std::uint64_t sector) override;
    bool writeGeometry(std::uint32_t heads, std::uint32_t sectorsPerTrack) override;

    // Reads sector 0, applies change, and writes the result to the backup first, then to sector
    // 0: both copies stay equal, as the checkers expect.
    bool updateBootSector(const std::function<void(ByteWriter&)>& change);

    std::uint32_t bytesPerSector() const { return bytesPerSector_; }

private:
    std::uint32_t bytesPerSector_;
    std::uint64_t backupOffset_;
};

} // namespace Platform
