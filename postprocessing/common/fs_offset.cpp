#include "postprocessing/common/fs_offset.h"

#include "platform/core/error.h"
#include "platform/fs/family.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/disk_geometry.h"
#include "postprocessing/tools/storage_resolution.h"
#include "postprocessing/tools/target_filesystem.h"

#include <vector>

namespace Libraries::KRO::PostProcessing::Common {

namespace {

// Without a recorded geometry this step assumes the BIOS translation of 255 heads.
constexpr u32 kDefaultHeads = 255;
constexpr u32 kDefaultSectors = 63;

StepResult writeGeometry(const Ref<Keeper>& keeper, u64 partition, Platform::FileSysBase& fs, u32 heads, u32 sectors)
{
    if (const std::string refusal = fs.refusal(); !refusal.empty()) {
        LogMessage(Channels::common(), LogError)
            << "Not writing the geometry of " << Tools::entryLogName(*keeper, partition) << ": " << refusal;
        return StepResult::Failed;
    }
    const auto storage = Tools::getToStorage(keeper, partition);
    if (!storage) {
        LogMessage(Channels::common(), LogError) << "Could not get storage for partition " << partition;
        return StepResult::Failed;
    }
    std::vector<u8> sector(storage->elementSize(), 0);
    if (storage->read(0, 1, sector.data()) != 1) {
        LogMessage(Channels::common(), LogError) << "Read failed";
        return StepResult::Failed;
    }
    // The file system writes the fields, into its backup boot sector too (FAT32, NTFS: their
    // checkers compare it with sector 0), and puts back what it wrote when a write fails.
    if (!fs.setGeometry(heads, sectors)) {
        LogMessage(Channels::common(), LogError) << "Write failed: " << Platform::Error::text();
        return StepResult::Failed;
    }
    return StepResult::Ok;
}

// Every boot sector on the disk's partitions gets the disk's geometry.
StepResult writeDiskGeometry(const Ref<Keeper>& keeper, u64 disk)
{
    u32 cylinders = 0, heads = kDefaultHeads, sectors = kDefaultSectors;
    if (!Tools::getCompleteDiskGeometry(keeper, disk, cylinders, heads, sectors)) {
        heads = kDefaultHeads;
        sectors = kDefaultSectors;
    }
    StepResult result = StepResult::NothingFound;
    for (const u64 partition : entriesOf(*keeper, KindPartition, disk)) {
        const auto fs = Tools::openToFileSystem(keeper, partition);
        if (fs && Platform::fsFamily(fs->type()).biosBootSector)
            result = foldResult(result, writeGeometry(keeper, partition, *fs, heads, sectors));
    }
    return result;
}

// The partition's recorded offset into its file system's hidden-sectors field.
StepResult writeOffset(const Ref<Keeper>& keeper, u64 partition)
{
    const u64 offsetEntry = keeper->findNext(KindPartitionOffset, 0, partition);
    const VariantList offset = offsetEntry ? keeper->getTo(offsetEntry) : VariantList{};
    if (offset.empty() || !offset.front().isInteger())
        return StepResult::NothingFound;
    const auto fs = Tools::openToFileSystem(keeper, partition);
    if (!fs)
        return StepResult::NothingFound;
    Platform::Error::set(Platform::Error::None);
    if (fs->setPartitionOffset(*offset.front().asInteger()))
        return StepResult::Ok;
    if (Platform::Error::get() == Platform::Error::NotSupported)
        return StepResult::NothingFound;
    LogMessage(Channels::common(), LogError)
        << "Could not set offset of " << Tools::entryLogName(*keeper, partition) << ": " << Platform::Error::text();
    return StepResult::Failed;
}

} // namespace

StepResult adjustPartitionCHS(Ref<Keeper> keeper)
{
    return foldOverEntries(keeper, KindDisk, Channels::common(), StepResult::Failed,
                           [&](u64 disk) { return writeDiskGeometry(keeper, disk); });
}

StepResult adjustFsOffset(Ref<Keeper> keeper)
{
    return foldOverEntries(keeper, KindPartition, Channels::common(), StepResult::Failed,
                           [&](u64 partition) { return writeOffset(keeper, partition); });
}

} // namespace Libraries::KRO::PostProcessing::Common
