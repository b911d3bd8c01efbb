#include "platform/fs/btrfs/volume.h"
#include "platform/fs/btrfs/layout.h"

#include "platform/core/bytes.h"
#include "platform/core/crc32c.h"
#include "platform/storage/byte_io.h"

#include <algorithm>
#include <cstring>

namespace Platform {

namespace {

using namespace Btrfs::Layout;

std::uint32_t checksumOf(const std::vector<std::uint8_t>& block)
{
    return crc32c(std::span(block).subspan(kChecksummed));
}

// Why a superblock copy that carries the magic cannot be used; empty when it can.
std::string copyProblem(const std::vector<std::uint8_t>& block, std::uint64_t offset)
{
    ByteView view(block);
    if (view.u64(kBytenr) != offset)
        return "the superblock at byte " + std::to_string(offset) + " says it lies at byte " +
               std::to_string(view.u64(kBytenr));
    if (view.u16(kCsumType) != 0)
        return "the superblock is checksummed with something other than crc32c";
    if (view.u32(kChecksum) != checksumOf(block))
        return "the superblock at byte " + std::to_string(offset) + " fails its checksum";
    return {};
}

bool hasMagic(const std::vector<std::uint8_t>& block)
{
    return block.size() == kSuperblockSize && std::memcmp(block.data() + kMagic, kMagicText, 8) == 0;
}

bool validCopy(const std::vector<std::uint8_t>& block, std::uint64_t offset)
{
    return hasMagic(block) && copyProblem(block, offset).empty();
}

} // namespace

std::optional<std::vector<std::uint64_t>> BtrfsVolume::detect(Interfaces::Storage& storage)
{
    const std::uint64_t size = storage.elementCount() * storage.elementSize();
    const auto primary = readBytes(storage, kCopies[0], kSuperblockSize);
    if (!hasMagic(primary))
        return std::nullopt;
    if (const std::string problem = copyProblem(primary, kCopies[0]); !problem.empty())
        return damaged(problem);
    ByteView view(primary);
    if (view.u64(kNumDevices) != 1)
        return damaged("the file system spans " + std::to_string(view.u64(kNumDevices)) + " devices");
    if (view.u64(kTotalBytes) > size)
        return damaged("the file system is larger than its partition");
    std::vector<std::uint64_t> copies{kCopies[0]};
    for (std::uint64_t offset : {kCopies[1], kCopies[2]})
        if (offset + kSuperblockSize <= size && validCopy(readBytes(storage, offset, kSuperblockSize), offset))
            copies.push_back(offset);
    return copies;
}

Ref<ByteArray> BtrfsVolume::volumeId() const
{
    return idAt(kCopies[0] + kFsid);
}

bool BtrfsVolume::writeVolumeId(std::span<const std::uint8_t> id)
{
    std::vector<std::vector<std::uint8_t>> blocks;
    for (std::uint64_t offset : copies_) {
        blocks.push_back(readBytes(*storage_, offset, kSuperblockSize));
        if (!validCopy(blocks.back(), offset))
            return fail(Error::Corrupt,
                        "the superblock at byte " + std::to_string(offset) + " changed or cannot be read");
    }
    for (auto& block : blocks) {
        ByteView view(block);
        ByteWriter out(block);
        const std::uint64_t incompat = view.u64(kIncompat);
        if (!(incompat & kIncompatMetadataUuid)) {
            // The tree blocks keep naming the old fsid: it becomes the metadata UUID.
            out.bytes(kMetadataUuid, view.bytes(kFsid, 16));
            out.u64(kIncompat, incompat | kIncompatMetadataUuid);
        }
        out.bytes(kFsid, id);
        out.u32(kChecksum, checksumOf(block));
    }
    // Mirrors first, the primary last.
    for (std::size_t i = blocks.size(); i-- > 0;)
        if (!writeBytes(*storage_, copies_[i], blocks[i]))
            return fail(Error::Io, "the superblock at byte " + std::to_string(copies_[i]) + " cannot be written");
    return true;
}

} // namespace Platform
