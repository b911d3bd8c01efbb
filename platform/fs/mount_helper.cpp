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

#include <map>

namespace Platform {

namespace {

// What the detectors found wrong with structures that carry their family's signature, by family
// (every FAT under FsFat32): a damaged volume is told in its own detector's words.
using Findings = std::map<std::uint32_t, std::string>;

// A detector's damage report taken into findings; it is no failure of the probe.
void take(Findings& findings, std::uint32_t family)
{
    if (Error::get() != Error::Corrupt)
        return;
    findings[family] = Error::text();
    Error::set(Error::None);
}

// The first family whose detector takes the storage.
Ref<FileSysBase> firstFamily(const Ref<Interfaces::Storage>& storage, Interfaces::Storage& look, Findings& findings)
{
    // exFAT and NTFS first: their boot sectors would not pass as FAT, but their names are exact.
    if (const auto bytesPerSector = ExfatVolume::detect(look))
        return makeRef<ExfatVolume>(storage, *bytesPerSector);
    take(findings, FsExfat);
    if (const auto layout = NtfsVolume::detect(look))
        return makeRef<NtfsVolume>(storage, *layout);
    take(findings, FsNtfs);
    if (const auto boot = FatVolume::detect(look))
        return makeRef<FatVolume>(storage, *boot);
    take(findings, FsFat32);
    if (const auto type = ExtVolume::detect(look))
        return makeRef<ExtVolume>(storage, *type);
    take(findings, FsExt4);
    if (auto copies = BtrfsVolume::detect(look))
        return makeRef<BtrfsVolume>(storage, std::move(*copies));
    take(findings, FsBtrfs);
    if (const auto geometry = XfsVolume::detect(look))
        return makeRef<XfsVolume>(storage, *geometry);
    take(findings, FsXfs);
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
    Findings findings;
    if (Ref<FileSysBase> fs = firstFamily(storage, *look, findings))
        return fs;
    const auto damage = DamagedVolume::detect(*look, [&](std::uint32_t type) {
        const auto found = findings.find(isFat(type) ? FsFat32 : type);
        return found == findings.end() ? std::string() : found->second;
    });
    return damage ? makeRef<DamagedVolume>(std::move(storage), damage->type, damage->reason) : Ref<FileSysBase>();
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
