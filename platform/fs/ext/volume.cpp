#include "platform/fs/ext/volume.h"
#include "platform/fs/ext/filesys.h"
#include "platform/fs/ext/layout.h"

#include "platform/core/bytes.h"
#include "platform/fs/ext/uuid_change.h"
#include "platform/storage/byte_io.h"

#include <cstring>
#include <set>

namespace Platform {

using namespace Ext::Layout;

std::optional<std::uint32_t> ExtVolume::detect(Interfaces::Storage& storage)
{
    const auto super = readBytes(storage, kSuperblockOffset, kSuperblockSize);
    if (super.empty())
        return std::nullopt;
    ByteView view(super);
    const std::uint32_t logBlockSize = view.u32(kLogBlockSize);
    if (view.u16(kMagic) != kExtMagic)
        return std::nullopt;
    if (logBlockSize > kMaxLogBlockSize)
        return damaged("the block size exponent " + std::to_string(logBlockSize) + " is above 6 (64 KiB blocks)");
    const std::uint64_t blockSize = 1024ULL << logBlockSize;
    if (!fitsInStorage(storage, view.u32(kBlocksCountLow), blockSize))
        return damaged("the file system is larger than its partition");
    const std::uint32_t incompat = view.u32(kFeatureIncompat);
    if (incompat & kIncompatJournalDev)
        return std::nullopt;
    if ((incompat & ~kExt3Incompat) || (view.u32(kFeatureRoCompat) & ~kExt3RoCompat))
        return FsExt4;
    return (view.u32(kFeatureCompat) & kCompatHasJournal) ? FsExt3 : FsExt2;
}

Ref<ByteArray> ExtVolume::volumeId() const
{
    return idAt(kSuperblockOffset + kUuid);
}

bool ExtVolume::writeVolumeId(std::span<const std::uint8_t> id)
{
    return changeExtUuid(storage_, id);
}

Ref<Filesys> ExtVolume::openFiles(Ref<Interfaces::Storage> storage, Access access, std::uint32_t) const
{
    return ExtFilesys::open(std::move(storage), access);
}

} // namespace Platform
