#include "platform/core/error.h"
#include "platform/fs/btrfs/volume.h"
#include "platform/fs/damaged_volume.h"
#include "platform/fs/exfat/volume.h"
#include "platform/fs/ext/volume.h"
#include "platform/fs/family.h"
#include "platform/fs/fat/volume.h"
#include "platform/fs/ntfs/volume.h"
#include "platform/fs/swap/volume.h"
#include "platform/fs/xfs/volume.h"
#include "platform/storage/read_once_storage.h"

namespace Platform {

Ref<FileSysBase> MountHelper::open(Ref<Interfaces::Storage> storage)
{
    if (!storage)
        return {};
    // The detectors all look at the first sectors: each is read once for all of them.
    const Ref<ReadOnceStorage> look = makeRef<ReadOnceStorage>(storage);
    // exFAT and NTFS first: their boot sectors would not pass as FAT, but their names are exact.
    if (const auto bytesPerSector = ExfatVolume::detect(*look))
        return makeRef<ExfatVolume>(std::move(storage), *bytesPerSector);
    if (const auto layout = NtfsVolume::detect(*look))
        return makeRef<NtfsVolume>(std::move(storage), *layout);
    if (const auto boot = FatVolume::detect(*look))
        return makeRef<FatVolume>(std::move(storage), *boot);
    if (const auto type = ExtVolume::detect(*look))
        return makeRef<ExtVolume>(std::move(storage), *type);
    if (auto copies = BtrfsVolume::detect(*look))
        return makeRef<BtrfsVolume>(std::move(storage), std::move(*copies));
    if (const auto geometry = XfsVolume::detect(*look))
        return makeRef<XfsVolume>(std::move(storage), *geometry);
    // Last: a swap signature lies in the first page, where a file system made later may have
    // left it standing.
    if (const auto layout = SwapVolume::detect(*look))
        return makeRef<SwapVolume>(std::move(storage), *layout);
    if (const auto damage = DamagedVolume::detect(*look))
        return makeRef<DamagedVolume>(std::move(storage), damage->type, damage->reason);
    return {};
}

std::uint32_t MountHelper::probe(const Ref<Interfaces::Storage>& storage)
{
    // A damaged file system is one none of the tools can handle.
    const auto fs = open(storage);
    return fs && fs->refusal().empty() ? fs->type() : FsNone;
}

Ref<FileSysBase> MountHelper::createFilesysBase(Ref<Interfaces::Storage> storage, std::uint32_t type)
{
    auto fs = open(std::move(storage));
    return fs && fs->type() == type ? fs : Ref<FileSysBase>();
}

const char* MountHelper::typeName(std::uint32_t type)
{
    return fsFamily(type).name;
}

} // namespace Platform
