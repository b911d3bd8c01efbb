#include "platform/core/error.h"
#include "platform/fs/btrfs_volume.h"
#include "platform/fs/exfat_volume.h"
#include "platform/fs/ext_volume.h"
#include "platform/fs/fat_volume.h"
#include "platform/fs/ntfs_volume.h"
#include "platform/fs/xfs_volume.h"

namespace Platform {

bool FileSysBase::setPartitionOffset(std::uint64_t)
{
    Error::set(Error::NotSupported);
    return fail("this file system records no partition offset");
}

std::uint32_t MountHelper::probe(const Ref<Interfaces::Storage>& storage)
{
    if (!storage)
        return FsNone;
    // exFAT and NTFS first: their boot sectors would not pass as FAT, but their names are exact.
    if (ExfatVolume::detect(*storage))
        return FsExfat;
    if (NtfsVolume::detect(*storage))
        return FsNtfs;
    if (const auto fat = FatVolume::detect(*storage))
        return fat->type;
    if (const auto ext = ExtVolume::detect(*storage))
        return *ext;
    if (BtrfsVolume::detect(*storage))
        return FsBtrfs;
    if (XfsVolume::detect(*storage))
        return FsXfs;
    return FsNone;
}

Ref<FileSysBase> MountHelper::createFilesysBase(Ref<Interfaces::Storage> storage, std::uint32_t type)
{
    if (!storage)
        return {};
    switch (type) {
    case FsFat12:
    case FsFat16:
    case FsFat32:
        if (const auto layout = FatVolume::detect(*storage); layout && layout->type == type)
            return makeRef<FatVolume>(std::move(storage), *layout);
        return {};
    case FsExfat:
        if (const auto bytesPerSector = ExfatVolume::detect(*storage))
            return makeRef<ExfatVolume>(std::move(storage), *bytesPerSector);
        return {};
    case FsNtfs:
        if (const auto layout = NtfsVolume::detect(*storage))
            return makeRef<NtfsVolume>(std::move(storage), *layout);
        return {};
    case FsExt2:
    case FsExt3:
    case FsExt4:
        if (const auto detected = ExtVolume::detect(*storage); detected && *detected == type)
            return makeRef<ExtVolume>(std::move(storage), type);
        return {};
    case FsXfs:
        if (const auto geometry = XfsVolume::detect(*storage))
            return makeRef<XfsVolume>(std::move(storage), *geometry);
        return {};
    case FsBtrfs:
        if (auto copies = BtrfsVolume::detect(*storage))
            return makeRef<BtrfsVolume>(std::move(storage), std::move(*copies));
        return {};
    default:
        return {};
    }
}

const char* MountHelper::typeName(std::uint32_t type)
{
    switch (type) {
    case FsFat12:
        return "FAT12";
    case FsFat16:
        return "FAT16";
    case FsFat32:
        return "FAT32";
    case FsExfat:
        return "exFAT";
    case FsNtfs:
        return "NTFS";
    case FsExt2:
        return "ext2";
    case FsExt3:
        return "ext3";
    case FsExt4:
        return "ext4";
    case FsXfs:
        return "XFS";
    case FsBtrfs:
        return "Btrfs";
    default:
        return "unknown";
    }
}

} // namespace Platform
