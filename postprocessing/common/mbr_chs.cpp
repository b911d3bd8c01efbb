#include "postprocessing/common/mbr_chs.h"

#include "platform/partman/partition_manager.h"
#include "postprocessing/common/chs.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/disk_geometry.h"
#include "postprocessing/tools/storage_resolution.h"

namespace Libraries::KRO::PostProcessing::Common {

namespace {

constexpr u64 kLastEncodable = 0xFFFFFFFE;

// Start and end CHS of one partition; not representable where either end is out of reach.
void setPartitionChs(Platform::Partition& partition, bool geometryKnown, u32 heads, u32 sectors)
{
    u32 startChs = kChsNotRepresentable, endChs = kChsNotRepresentable;
    if (geometryKnown) {
        const u64 start = partition.start();
        const u64 end = start + partition.size() - 1;
        if (start <= kLastEncodable && end <= kLastEncodable) {
            startChs = encodeChs(heads, sectors, u32(start));
            endChs = encodeChs(heads, sectors, u32(end));
        }
        if (startChs == kChsNotRepresentable || endChs == kChsNotRepresentable) {
            LogMessage(Channels::common(), LogDetail) << "cannot set chs for " << start << ", " << partition.size();
            startChs = endChs = kChsNotRepresentable;
        }
    }
    partition.setStartCHS(startChs);
    partition.setEndCHS(endChs);
}

StepResult adjustDisk(const Ref<Keeper>& keeper, u64 disk)
{
    u32 cylinders = 0, heads = 0, sectors = 0;
    const bool geometryKnown = Tools::getCompleteDiskGeometry(keeper, disk, cylinders, heads, sectors);
    const auto storage = Tools::getToStorage(keeper, disk);
    if (!storage) {
        LogMessage(Channels::common(), LogError)
            << "Libraries::KRO::PostProcessing::Common::adjustMbrCHSCould not get storage for disk";
        return StepResult::NothingFound;
    }
    const auto table = Platform::PartitionManager::create(storage, 512);
    if (!table) {
        LogMessage(Channels::common(), LogError) << "Could not get Partition manager";
        return StepResult::NothingFound;
    }
    StepResult result = StepResult::NothingFound;
    bool changed = false;
    for (std::size_t i = 0; i < table->partitionCount(); ++i) {
        const auto partition = table->partition(i);
        if (!partition) {
            LogMessage(Channels::common(), LogError) << "Partition not valid: " << i;
            result = StepResult::Failed;
            continue;
        }
        setPartitionChs(*partition, geometryKnown, heads, sectors);
        changed = true;
    }
    if (changed)
        result = foldResult(result, table->commit(true) == 0 ? StepResult::Ok : StepResult::Failed);
    return result;
}

} // namespace

StepResult adjustMbrCHS(Ref<Keeper> keeper)
{
    return foldOverEntries(keeper, KindDisk, Channels::common(), StepResult::Failed,
                           [&](u64 disk) { return adjustDisk(keeper, disk); });
}

} // namespace Libraries::KRO::PostProcessing::Common
