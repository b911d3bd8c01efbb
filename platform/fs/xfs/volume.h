#pragma once
// XFS: a new UUID in every allocation group's superblock. On v5 (CRC) file systems the metadata
// keeps naming the old UUID, which becomes the metadata UUID (the meta-uuid feature); each
// superblock's CRC is recomputed. The internal log is re-initialised with the new UUID, as the
// kernel refuses a log whose UUID differs from the superblock's; a dirty log is refused.

#include "platform/fs/filesys_base.h"

#include <optional>

namespace Platform {

class XfsVolume : public FileSysBase {
public:
    struct Geometry {
        std::uint32_t blockSize;
        std::uint32_t sectorSize;
        std::uint32_t agBlocks;
        std::uint32_t agCount;
        std::uint32_t agBlockLog;
        bool crc;               // v5
        std::uint64_t logStart; // file-system block of the internal log, 0 for an external one
        std::uint32_t logBlocks;
        bool logV2;
    };

    // The geometry when the primary superblock is a consistent XFS superblock (its CRC included)
    // for a file system that fits the storage.
    static std::optional<Geometry> detect(Interfaces::Storage& storage);

    XfsVolume(Ref<Interfaces::Storage> storage, const Geometry& geometry)
        : FileSysBase(std::move(storage)), geometry_(geometry)
    {
    }

    std::uint32_t type() const override { return FsXfs; }
    Ref<ByteArray> volumeId() const override;

protected:
    bool writeVolumeId(std::span<const std::uint8_t> id) override;

private:
    std::uint64_t logOffset() const;
    // The cycle of the log's last record, or nothing (with the error set) when the log is dirty
    // or cannot be read.
    std::optional<std::uint32_t> cleanLogCycle();
    bool rewriteLog(std::span<const std::uint8_t> uuid, std::uint32_t cycle);

    Geometry geometry_;
};

} // namespace Platform
