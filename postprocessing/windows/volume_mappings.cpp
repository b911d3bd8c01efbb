#include "postprocessing/windows/volume_mappings.h"

#include "platform/core/bytes.h"
#include "platform/windows/bcd_store.h"
#include "platform/windows/system_hives.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/windows/windows_volume.h"

namespace Libraries::KRO::PostProcessing {

namespace {

using Platform::Windows::AdjustWindowsVolumes;

constexpr const char* kWhere = "Libraries::KRO::PostProcessing::getAdjustVolumes: ";

LogMessage error()
{
    return LogMessage(Channels::windows(), LogError);
}

Ref<ByteArray> bytesOf(const ObjectRef& object)
{
    return Platform::refCast<ByteArray>(object);
}

Ref<ByteArray> byteOffset(u64 offset)
{
    std::vector<u8> bytes(8);
    Platform::ByteWriter writer(bytes);
    writer.u64(0, offset);
    return writer.ok() ? Platform::makeRef<ByteArray>(std::move(bytes)) : nullptr;
}

std::optional<u64> firstInteger(const VariantList& values)
{
    return values.empty() ? std::nullopt : values.front().asInteger();
}

struct DiskIds {
    Ref<ByteArray> from, to;
};

// An MBR partition's old and new byte offsets, from its start sectors and sector sizes.
std::optional<std::pair<Ref<ByteArray>, Ref<ByteArray>>> mbrKeys(const Keeper& keeper, u64 partition)
{
    const u64 offsetEntry = keeper.findNext(KindPartitionOffset, 0, partition);
    if (offsetEntry == 0) {
        error() << kWhere << "could not find partition offset";
        return std::nullopt;
    }
    const u64 sizeEntry = keeper.findNext(KindElementSize, 0, partition);
    if (sizeEntry == 0) {
        error() << kWhere << "could not find partition elementsize";
        return std::nullopt;
    }
    const auto toOffset = firstInteger(keeper.getTo(offsetEntry));
    const auto toSize = firstInteger(keeper.getTo(sizeEntry));
    const auto fromOffset = firstInteger(keeper.getFrom(offsetEntry));
    const auto fromSize = firstInteger(keeper.getFrom(sizeEntry));
    const char* missing = !toOffset     ? "No valid to offset"
                          : !toSize     ? "No valid to elementsize"
                          : !fromOffset ? "No valid from offset"
                          : !fromSize   ? "No valid from elementsize"
                                        : nullptr;
    if (missing) {
        error() << missing;
        return std::nullopt;
    }
    return std::pair(byteOffset(*fromOffset * *fromSize), byteOffset(*toOffset * *toSize));
}

// Whether a mapping was added; one that maps a partition to itself on an unchanged disk changes
// nothing and is left out.
bool addMapping(AdjustWindowsVolumes& adjuster, const Ref<ByteArray>& fromKey, const Ref<ByteArray>& toKey,
                const DiskIds& disk)
{
    if (fromKey && toKey && *fromKey == *toKey && *disk.from == *disk.to)
        return false;
    if (adjuster.addMapping(fromKey, toKey, disk.from, disk.to))
        return true;
    error() << kWhere << "Could not add  partition mapping";
    return false;
}

bool addUuidChange(const Keeper& keeper, AdjustWindowsVolumes& adjuster, u64 change, const DiskIds& disk)
{
    return addMapping(adjuster, bytesOf(keeper.getFromObject(change)), bytesOf(keeper.getToObject(change)), disk);
}

// Whether the partition's mapping was added.
bool addPartition(const Keeper& keeper, AdjustWindowsVolumes& adjuster, u64 partition, const DiskIds& disk)
{
    if (disk.from->size() == Platform::Windows::kGptIdSize) {
        const u64 change = keeper.findNext(KindPartitionUuidChange, 0, partition);
        if (change == 0) {
            LogMessage(Channels::windows(), LogDetail) << kWhere << "could not find partition change";
            return false;
        }
        return addUuidChange(keeper, adjuster, change, disk);
    }
    const auto keys = mbrKeys(keeper, partition);
    return keys && addMapping(adjuster, keys->first, keys->second, disk);
}

// fn on the file system of every partition entry that the Windows steps may open; a volume that
// holds what fn changes (holds) but may not be changed fails the step.
StepResult overWindowsVolumes(const Ref<Keeper>& keeper, const char* what,
                              const std::function<bool(Platform::Filesys&)>& holds,
                              const std::function<bool(const Ref<Platform::Filesys>&)>& fn)
{
    StepResult result = StepResult::NothingFound;
    for (const u64 partition : entriesOf(*keeper, KindPartition)) {
        const auto volume = Windows::WindowsVolume::open(keeper, partition, keeper->isEnabled(StepHiberfile));
        if (!volume.files() || !holds(*volume.files()))
            continue;
        if (!volume.mayChange(what)) {
            result = StepResult::Failed;
            continue;
        }
        if (fn(volume.files()))
            result = foldResult(result, StepResult::Ok);
    }
    return result;
}

StepResult overAdjusters(const Ref<Keeper>& keeper, const std::function<StepResult(AdjustWindowsVolumes&)>& fn)
{
    if (keeperMissing(keeper, Channels::windows()))
        return StepResult::Failed;
    StepResult result = StepResult::NothingFound;
    for (const u64 disk : entriesOf(*keeper, KindDisk))
        if (const auto adjuster = getAdjustVolumes(keeper, disk))
            result = foldResult(result, fn(*adjuster));
    return result;
}

} // namespace

Ref<AdjustWindowsVolumes> getAdjustVolumes(const Ref<Keeper>& keeper, u64 diskId)
{
    if (keeper->getKind(diskId) != KindDisk) {
        error() << kWhere << "type not handled: " << keeper->getKind(diskId);
        return nullptr;
    }
    const u64 change = keeper->findNext(KindDiskIdChange, 0, diskId);
    DiskIds disk{bytesOf(keeper->getFromObject(change)), bytesOf(keeper->getToObject(change))};
    if (change == 0 || !disk.from) {
        error() << kWhere << "from disk id not set";
        return nullptr;
    }
    if (!disk.to) {
        error() << kWhere << "to disk id not set, using from value";
        disk.to = disk.from;
    }
    if (disk.from->size() != Platform::Windows::kGptIdSize && disk.from->size() != Platform::Windows::kMbrDiskIdSize) {
        error() << "Disk ID size neither GPT nor MBR: " << disk.from->size();
        return nullptr;
    }
    bool changed = !(*disk.from == *disk.to);
    const auto adjuster = AdjustWindowsVolumes::create(disk.from, disk.to);
    if (!adjuster) {
        error() << kWhere << "could not create AdjustWindowsVolumes object";
        return nullptr;
    }
    for (const u64 partition : entriesOf(*keeper, KindPartition, diskId))
        changed = addPartition(*keeper, *adjuster, partition, disk) || changed;
    if (disk.from->size() == Platform::Windows::kGptIdSize && disk.to->size() == Platform::Windows::kGptIdSize)
        for (const u64 direct : entriesOf(*keeper, KindPartitionUuidChange, diskId))
            changed = addUuidChange(*keeper, *adjuster, direct, disk) || changed;
    if (!changed) {
        LogMessage(Channels::windows(), LogDetail) << kWhere << "no mappings found";
        return nullptr;
    }
    return adjuster;
}

namespace Windows {

StepResult adjustMountedDevices(Ref<Keeper> keeper)
{
    return overAdjusters(keeper, [&](AdjustWindowsVolumes& adjuster) {
        return overWindowsVolumes(
            keeper, "the drive letters in its system hive",
            [](Platform::Filesys& fs) { return Platform::Windows::Utils::findSystemRegistryHive(fs).has_value(); },
            [&](const Ref<Platform::Filesys>& fs) { return adjuster.adjustMountedDevices(fs, nullptr); });
    });
}

StepResult adjustBcd(Ref<Keeper> keeper)
{
    return overAdjusters(keeper, [&](AdjustWindowsVolumes& adjuster) {
        return overWindowsVolumes(
            keeper, "its boot configuration store",
            [](Platform::Filesys& fs) { return !Platform::Windows::findBootStores(fs).empty(); },
            [&](const Ref<Platform::Filesys>& fs) { return adjuster.adjustBcd(fs); });
    });
}

} // namespace Windows
} // namespace Libraries::KRO::PostProcessing
