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

namespace {

// What the family's own detector says is wrong with a structure that carries its signature.
std::string whatIsWrong(std::uint32_t type, Interfaces::Storage& look)
{
    Error::set(Error::None);
    if (isFat(type))
        (void)FatVolume::detect(look);
    else if (type == FsExfat)
        (void)ExfatVolume::detect(look);
    else if (type == FsNtfs)
        (void)NtfsVolume::detect(look);
    else if (type == FsXfs)
        (void)XfsVolume::detect(look);
    else if (type == FsBtrfs)
        (void)BtrfsVolume::detect(look);
    else
        (void)ExtVolume::detect(look);
    return Error::get() == Error::Corrupt ? Error::text() : std::string();
}

// The first family whose detector takes the storage.
Ref<FileSysBase> firstFamily(const Ref<Interfaces::Storage>& storage, Interfaces::Storage& look)
{
    // exFAT and NTFS first: their boot sectors would not pass as FAT, but their names are exact.
    if (const auto bytesPerSector = ExfatVolume::detect(look))
        return makeRef<ExfatVolume>(storage, *bytesPerSector);
    if (const auto layout = NtfsVolume::detect(look))
        return makeRef<NtfsVolume>(storage, *layout);
    if (const auto boot = FatVolume::detect(look))
        return makeRef<FatVolume>(storage, *boot);
    if (const auto type = ExtVolume::detect(look))
        return makeRef<ExtVolume>(storage, *type);
    if (auto copies = BtrfsVolume::detect(look))
        return makeRef<BtrfsVolume>(storage, std::move(*copies));
    if (const auto geometry = XfsVolume::detect(look))
        return makeRef<XfsVolume>(storage, *geometry);
    // Last: a swap signature lies in the first page, where a file system made later may have
    // left it standing.
    if (const auto layout = SwapVolume::detect(look))
        return makeRef<SwapVolume>(storage, *layout);
    return {};
}

} // namespace

Ref<FileSysBase> MountHelper::open(Ref<Interfaces::Storage> storage)
{
    if (!storage)
        return {};
    // The detectors all look at the first sectors: each is read once for all of them.
    const Ref<ReadOnceStorage> look = makeRef<ReadOnceStorage>(storage);
    Ref<FileSysBase> fs = firstFamily(storage, *look);
    if (!fs)
        if (const auto damage =
                DamagedVolume::detect(*look, [&](std::uint32_t type) { return whatIsWrong(type, *look); }))
            fs = makeRef<DamagedVolume>(std::move(storage), damage->type, damage->reason);
    // What the detectors said of structures that were not theirs is no failure of this call.
    if (Error::get() == Error::Corrupt)
        Error::set(Error::None);
    return fs;
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
