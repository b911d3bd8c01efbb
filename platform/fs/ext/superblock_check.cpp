#include "platform/fs/ext/superblock_check.h"
#include "platform/fs/ext/layout.h"

#include "platform/core/bytes.h"

#include <bit>

namespace Platform {

namespace {

using namespace Ext::Layout;

std::string wrong(const std::string& field, std::uint64_t value, const std::string& rule)
{
    return "the superblock is damaged: " + field + " is " + std::to_string(value) + ", " + rule +
           "; run e2fsck -f, which repairs it from a backup";
}

bool powerOfTwoBetween(std::uint64_t value, std::uint64_t low, std::uint64_t high)
{
    return std::has_single_bit(value) && value >= low && value <= high;
}

} // namespace

std::string extSuperblockProblem(std::span<const std::uint8_t> superblock, std::uint64_t storageBytes)
{
    ByteView view(superblock);
    const std::uint32_t logBlockSize = view.u32(kLogBlockSize);
    if (logBlockSize > kMaxLogBlockSize)
        return wrong("the block size exponent", logBlockSize, "at most " + std::to_string(kMaxLogBlockSize));
    const std::uint64_t blockSize = 1024ULL << logBlockSize;
    const bool wide = view.u32(kFeatureIncompat) & kIncompat64Bit;
    const bool bigalloc = view.u32(kFeatureRoCompat) & kRoCompatBigalloc;
    const std::uint64_t blocks =
        view.u32(kBlocksCountLow) | (wide ? std::uint64_t(view.u32(kBlocksCountHigh)) << 32 : 0);
    if (blocks == 0 || blocks > storageBytes / blockSize)
        return wrong("the block count", blocks, "more than the partition holds or none");
    const std::uint64_t reserved =
        view.u32(kReservedBlocksLow) | (wide ? std::uint64_t(view.u32(kReservedBlocksHigh)) << 32 : 0);
    if (reserved > blocks / 2)
        return wrong("the reserved block count", reserved, "more than half of the blocks");

    const std::uint32_t firstDataBlock = view.u32(kFirstDataBlock);
    const std::uint32_t expectedFirst = logBlockSize == 0 && !bigalloc ? 1 : 0;
    if (firstDataBlock != expectedFirst)
        return wrong("the first data block", firstDataBlock, "where " + std::to_string(expectedFirst) + " belongs");
    const std::uint64_t bitsPerBlock = blockSize * 8;
    const std::uint32_t blocksPerGroup = view.u32(kBlocksPerGroup);
    if (bigalloc) {
        const std::uint32_t logClusterSize = view.u32(kLogClusterSize);
        if (logClusterSize < logBlockSize || logClusterSize > logBlockSize + 16)
            return wrong("the cluster size exponent", logClusterSize, "not a block size multiple it can be");
        if (view.u32(kClustersPerGroup) == 0 || view.u32(kClustersPerGroup) > bitsPerBlock)
            return wrong("clusters per group", view.u32(kClustersPerGroup),
                         "outside 1.." + std::to_string(bitsPerBlock));
    } else if (blocksPerGroup < 8 || blocksPerGroup > bitsPerBlock) {
        return wrong("blocks per group", blocksPerGroup, "outside 8.." + std::to_string(bitsPerBlock));
    }
    if (blocksPerGroup == 0)
        return wrong("blocks per group", 0, "none");

    const std::uint32_t revision = view.u32(kRevision);
    const std::uint32_t inodeSize = revision == 0 ? kGoodOldInodeSize : view.u16(kInodeSize);
    if (!powerOfTwoBetween(inodeSize, kGoodOldInodeSize, blockSize))
        return wrong("the inode size", inodeSize, "not a power of two from 128 to the block size");
    const std::uint32_t inodesPerGroup = view.u32(kInodesPerGroup);
    if (inodesPerGroup < blockSize / inodeSize || inodesPerGroup > bitsPerBlock)
        return wrong("inodes per group", inodesPerGroup,
                     "outside " + std::to_string(blockSize / inodeSize) + ".." + std::to_string(bitsPerBlock));
    const std::uint64_t groups = (blocks - firstDataBlock + blocksPerGroup - 1) / blocksPerGroup;
    const std::uint64_t inodes = view.u32(kInodesCount);
    if (inodes != std::uint64_t(inodesPerGroup) * groups)
        return wrong("the inode count", inodes,
                     "where " + std::to_string(inodesPerGroup) + " per group in " + std::to_string(groups) +
                         " groups make " + std::to_string(std::uint64_t(inodesPerGroup) * groups));
    if (revision > 0) {
        const std::uint32_t firstInode = view.u32(kFirstInode);
        if (firstInode < kGoodOldFirstInode || firstInode >= inodes)
            return wrong("the first inode", firstInode, "outside 11.." + std::to_string(inodes - 1));
    }
    const std::uint32_t reservedGdt = view.u16(kReservedGdtBlocks);
    if (reservedGdt > blockSize / 4)
        return wrong("the reserved GDT block count", reservedGdt, "more than " + std::to_string(blockSize / 4));
    if (wide && !powerOfTwoBetween(view.u16(kDescriptorSize), 64, blockSize))
        return wrong("the group descriptor size", view.u16(kDescriptorSize),
                     "not a power of two from 64 to the block size");
    if ((view.u32(kFeatureIncompat) & kIncompatFlexBg) && view.u8(kLogGroupsPerFlex) > 31)
        return wrong("the flex group exponent", view.u8(kLogGroupsPerFlex), "at most 31");
    return {};
}

} // namespace Platform
