#include "platform/fs/xfs/volume.h"
#include "platform/fs/xfs/layout.h"

#include "platform/core/bytes.h"
#include "platform/core/crc32c.h"
#include "platform/storage/byte_io.h"

#include <algorithm>

namespace Platform {

namespace {

using namespace Xfs::Layout;

std::uint32_t superblockCrc(std::vector<std::uint8_t> sector)
{
    ByteWriter(sector).u32(kCrc, 0);
    return crc32c(sector);
}

bool validSuperblock(const std::vector<std::uint8_t>& sector, bool crc)
{
    ByteView view(sector);
    return !sector.empty() && view.be32(0) == kMagic && (!crc || view.u32(kCrc) == superblockCrc(sector));
}

} // namespace

std::optional<XfsVolume::Geometry> XfsVolume::detect(Interfaces::Storage& storage)
{
    const auto first = readBytes(storage, 0, 512);
    if (first.empty())
        return std::nullopt;
    ByteView view(first);
    Geometry g{view.be32(kBlockSize), view.be16(kSectorSize), view.be32(kAgBlocks),
               view.be32(kAgCount),   view.u8(kAgBlockLog),   (view.be16(kVersion) & kVersionMask) == 5,
               view.be64(kLogStart),  view.be32(kLogBlocks),  (view.be16(kVersion) & kVersionLogV2) != 0};
    const auto powerOfTwo = [](std::uint32_t v) { return v != 0 && (v & (v - 1)) == 0; };
    if (view.be32(0) != kMagic)
        return std::nullopt;
    if (!powerOfTwo(g.blockSize) || g.blockSize < 512 || g.blockSize > 65536)
        return damaged("the block size, " + std::to_string(g.blockSize) + ", is not a power of two from 512 to 65536");
    if (!powerOfTwo(g.sectorSize) || g.sectorSize < 512 || g.sectorSize > 32768)
        return damaged("the sector size, " + std::to_string(g.sectorSize) +
                       ", is not a power of two from 512 to 32768");
    if (g.agBlocks == 0 || g.agCount == 0)
        return damaged("there are no allocation groups");
    if (g.agBlockLog > 31 || (std::uint64_t(1) << g.agBlockLog) < g.agBlocks)
        return damaged("the allocation group size does not fit its block-number width");
    if (!fitsInStorage(storage, view.be64(kDataBlocks), g.blockSize))
        return damaged("the file system is larger than its partition");
    const auto sector = readBytes(storage, 0, g.sectorSize);
    if (sector.empty())
        return std::nullopt;
    if (!validSuperblock(sector, g.crc))
        return damaged("the superblock fails its checksum");
    return g;
}

Ref<ByteArray> XfsVolume::volumeId() const
{
    return idAt(kUuid);
}

std::uint64_t XfsVolume::logOffset() const
{
    const std::uint64_t ag = geometry_.logStart >> geometry_.agBlockLog;
    const std::uint64_t block = geometry_.logStart & ((std::uint64_t(1) << geometry_.agBlockLog) - 1);
    return (ag * geometry_.agBlocks + block) * geometry_.blockSize;
}

// Finds the head as the kernel does: the first basic block whose cycle is lower than block 0's
// (cycles only fall once along the log), then the last record before it, which must be an
// unmount record.
std::optional<std::uint32_t> XfsVolume::cleanLogCycle()
{
    const std::uint64_t start = logOffset();
    const std::uint64_t blocks = std::uint64_t(geometry_.logBlocks) * geometry_.blockSize / kBasicBlock;
    const auto cycleAt = [&](std::uint64_t block) -> std::optional<std::uint32_t> {
        const auto sector = readBytes(*storage_, start + block * kBasicBlock, kBasicBlock);
        if (sector.empty())
            return std::nullopt;
        ByteView view(sector);
        return view.be32(0) == kRecordMagic ? view.be32(kRecCycle) : view.be32(0);
    };
    const auto firstCycle = cycleAt(0);
    const auto lastCycle = cycleAt(blocks - 1);
    if (!firstCycle || !lastCycle || *firstCycle == 0) {
        fail(Error::Corrupt, "the log cannot be read or holds no record");
        return std::nullopt;
    }
    std::uint64_t head = blocks; // the whole log has one cycle: the head wrapped to the start
    if (*lastCycle != *firstCycle) {
        std::uint64_t low = 0, high = blocks - 1; // cycle(low) == first, cycle(high) != first
        while (high - low > 1) {
            const std::uint64_t middle = low + (high - low) / 2;
            const auto cycle = cycleAt(middle);
            if (!cycle) {
                fail(Error::Io, "the log cannot be read");
                return std::nullopt;
            }
            (*cycle == *firstCycle ? low : high) = middle;
        }
        head = high;
    }
    for (std::uint64_t back = 1; back <= std::min<std::uint64_t>(head, kMaxRecordSearch); ++back) {
        const auto header = readBytes(*storage_, start + (head - back) * kBasicBlock, kBasicBlock);
        ByteView view(header);
        if (header.empty() || view.be32(0) != kRecordMagic)
            continue;
        const std::uint32_t size = view.be32(kRecSize);
        const std::uint64_t headerBlocks =
            view.be32(kRecVersion) == 2 ? std::max<std::uint64_t>(1, (size + kHeaderCycleSize - 1) / kHeaderCycleSize)
                                        : 1;
        const auto data = readBytes(*storage_, start + (head - back + headerBlocks) * kBasicBlock, kBasicBlock);
        ByteView op(data);
        const bool unmount =
            !data.empty() && view.be32(kRecOpCount) == 1 && op.u8(8) == kLogClient && (op.u8(9) & kUnmountFlag) != 0;
        if (!unmount) {
            fail(Error::DirtyLog, "the log is dirty: mount the file system or run xfs_repair first");
            return std::nullopt;
        }
        return view.be32(kRecCycle);
    }
    fail(Error::Corrupt, "no record found before the head of the log");
    return std::nullopt;
}

namespace {

// One log record of `blocks` basic blocks holding a single unmount operation: the header (and, in
// a v2 log, an extended header per 32 KiB of record), then data blocks. Every block's first word
// carries the cycle; the word it replaces in the first data block is kept in the header.
std::vector<std::uint8_t> unmountRecord(std::span<const std::uint8_t> uuid, bool v2, std::uint32_t cycle,
                                        std::uint64_t block, std::uint64_t tailBlock, std::uint32_t tailCycle,
                                        std::uint64_t blocks, std::uint32_t dataBytes)
{
    const std::uint64_t headers =
        v2 ? std::max<std::uint64_t>(1, (blocks * kBasicBlock + kHeaderCycleSize - 1) / kHeaderCycleSize) : 1;
    std::vector<std::uint8_t> record(std::size_t(blocks * kBasicBlock), 0);
    ByteWriter out(record);
    for (std::uint64_t b = 1; b < blocks; ++b)
        out.be32(std::size_t(b * kBasicBlock), cycle);
    out.be32(0, kRecordMagic);
    out.be32(kRecCycle, cycle);
    out.be32(kRecVersion, v2 ? 2 : 1);
    out.be32(kRecLength, dataBytes ? dataBytes : std::uint32_t((blocks - headers) * kBasicBlock));
    out.be64(kRecLsn, std::uint64_t(cycle) << 32 | block);
    out.be64(kRecTailLsn, std::uint64_t(tailCycle) << 32 | tailBlock);
    out.be32(kRecPrevBlock, 0xFFFFFFFF);
    out.be32(kRecOpCount, 1);
    out.be32(kRecCycleData, kUnmountTid);
    out.be32(kRecFormat, kFormatLinuxLittleEndian);
    out.bytes(kRecUuid, uuid);
    out.be32(kRecSize, dataBytes ? kHeaderCycleSize : std::uint32_t(blocks * kBasicBlock));
    // The unmount operation: length 8, log client, unmount flag, and the type 0x556e in host order.
    const std::size_t op = std::size_t(headers * kBasicBlock);
    out.be32(op + 4, 8);
    out.u8(op + 8, kLogClient);
    out.u8(op + 9, kUnmountFlag);
    out.u16(op + 12, 0x556E);
    return record;
}

} // namespace

// Lays the log out as the XFS tools do when they clear it: an unmount record of the new cycle at
// the start, then records of the previous cycle over the rest, so that the kernel finds a clean
// log whose cycle is above every LSN the metadata may carry.
bool XfsVolume::rewriteLog(std::span<const std::uint8_t> uuid, std::uint32_t cycle)
{
    const std::uint64_t start = logOffset();
    const std::uint64_t blocks = std::uint64_t(geometry_.logBlocks) * geometry_.blockSize / kBasicBlock;
    const std::uint64_t recordBlocks = geometry_.logV2 ? 512 : 64; // 256 KiB and 32 KiB records
    const std::uint64_t firstBlocks = std::min(blocks, recordBlocks);
    auto first = unmountRecord(uuid, geometry_.logV2, cycle, 0, blocks - 2, cycle - 1, 2, kBasicBlock);
    first.resize(std::size_t(firstBlocks * kBasicBlock), 0);
    // Records go out in chunks of a few MiB: one write per record would be hundreds of writes.
    constexpr std::size_t kChunkBytes = 4 << 20;
    std::vector<std::uint8_t> chunk = std::move(first);
    std::uint64_t chunkStart = start;
    for (std::uint64_t block = firstBlocks; block < blocks;) {
        const std::uint64_t length = std::min(recordBlocks, blocks - block);
        const auto filler =
            unmountRecord(uuid, geometry_.logV2, cycle - 1, block, block - length, cycle - 1, length, 0);
        if (chunk.size() + filler.size() > kChunkBytes) {
            if (!writeBytes(*storage_, chunkStart, chunk))
                return fail(Error::Io, "the log cannot be written");
            chunkStart = start + block * kBasicBlock;
            chunk.clear();
        }
        chunk.insert(chunk.end(), filler.begin(), filler.end());
        block += length;
    }
    if (!writeBytes(*storage_, chunkStart, chunk))
        return fail(Error::Io, "the log cannot be written");
    return true;
}

bool XfsVolume::writeVolumeId(std::span<const std::uint8_t> id)
{
    if (geometry_.logStart == 0)
        return fail(Error::NotSupported, "the log is on another device");
    std::vector<std::vector<std::uint8_t>> superblocks;
    for (std::uint64_t ag = 0; ag < geometry_.agCount; ++ag) {
        superblocks.push_back(
            readBytes(*storage_, ag * geometry_.agBlocks * geometry_.blockSize, geometry_.sectorSize));
        if (!validSuperblock(superblocks.back(), geometry_.crc))
            return fail(Error::Corrupt, "the superblock of allocation group " + std::to_string(ag) + " is damaged");
    }
    const auto cycle = cleanLogCycle();
    if (!cycle)
        return false;

    for (auto& sector : superblocks) {
        ByteView view(sector);
        ByteWriter out(sector);
        if (geometry_.crc && !(view.be32(kIncompat) & kIncompatMetaUuid)) {
            out.bytes(kMetaUuid, view.bytes(kUuid, 16));
            out.be32(kIncompat, view.be32(kIncompat) | kIncompatMetaUuid);
        }
        out.bytes(kUuid, id);
        if (geometry_.crc)
            out.u32(kCrc, superblockCrc(sector));
    }
    if (!rewriteLog(id, *cycle + 1))
        return false;
    // Secondary superblocks first, the primary last.
    for (std::size_t ag = superblocks.size(); ag-- > 0;)
        if (!writeBytes(*storage_, ag * geometry_.agBlocks * geometry_.blockSize, superblocks[ag]))
            return fail(Error::Io, "the superblock of allocation group " + std::to_string(ag) + " cannot be written");
    return true;
}

} // namespace Platform
