#include "platform/fs/ext/volume.h"
#include "platform/fs/ext/filesys.h"

#include "platform/core/bytes.h"
#include "platform/fs/ext/uuid_change.h"
#include "platform/storage/byte_io.h"

#include <cstring>
#include <set>

namespace Platform {

namespace {

constexpr std::uint64_t kSuperblockOffset = 1024;
constexpr std::size_t kSuperblockSize = 1024;
// Superblock fields, relative to its start.
constexpr std::size_t kBlocksCount = 0x04;   // u32 (low half)
constexpr std::size_t kLogBlockSize = 0x18;  // u32
constexpr std::size_t kMagic = 0x38;         // u16
constexpr std::size_t kFeatureCompat = 0x5C; // u32
constexpr std::size_t kFeatureIncompat = 0x60;
constexpr std::size_t kFeatureRoCompat = 0x64;
constexpr std::size_t kUuid = 0x68;
constexpr std::uint16_t kExtMagic = 0xEF53;
constexpr std::uint32_t kCompatHasJournal = 0x4;
constexpr std::uint32_t kIncompatJournalDev = 0x8;
// What ext2 and ext3 know; anything beyond makes the file system ext4.
constexpr std::uint32_t kExt3Incompat = 0x2 | 0x4 | 0x10; // filetype, recover, meta_bg
constexpr std::uint32_t kExt3RoCompat = 0x1 | 0x2 | 0x4;  // sparse_super, large_file, btree_dir

} // namespace

std::optional<std::uint32_t> ExtVolume::detect(Interfaces::Storage& storage)
{
    const auto super = readBytes(storage, kSuperblockOffset, kSuperblockSize);
    if (super.empty())
        return std::nullopt;
    ByteView view(super);
    const std::uint32_t logBlockSize = view.u32(kLogBlockSize);
    if (view.u16(kMagic) != kExtMagic || logBlockSize > 6)
        return std::nullopt;
    const std::uint64_t blockSize = 1024ULL << logBlockSize;
    if (!fitsInStorage(storage, view.u32(kBlocksCount), blockSize))
        return std::nullopt;
    const std::uint32_t incompat = view.u32(kFeatureIncompat);
    if (incompat & kIncompatJournalDev)
        return std::nullopt;
    if ((incompat & ~kExt3Incompat) || (view.u32(kFeatureRoCompat) & ~kExt3RoCompat))
        return FsExt4;
    return (view.u32(kFeatureCompat) & kCompatHasJournal) ? FsExt3 : FsExt2;
}

Ref<ByteArray> ExtVolume::volumeId() const
{
    const auto uuid = readBytes(*storage_, kSuperblockOffset + kUuid, 16);
    return uuid.empty() ? Ref<ByteArray>() : ByteArray::create(uuid);
}

bool ExtVolume::writeVolumeId(std::span<const std::uint8_t> id)
{
    if (id.size() != 16)
        return fail(Error::Invalid, "an ext UUID is 16 bytes, not " + std::to_string(id.size()));
    return changeExtUuid(storage_, id);
}

Ref<Filesys> ExtVolume::openFiles(Ref<Interfaces::Storage> storage, Access access) const
{
    return ExtFilesys::open(std::move(storage), access);
}

} // namespace Platform
