#include "postprocessing/common/partition_type.h"

#include "platform/partman/partition_manager.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/storage_resolution.h"
#include "postprocessing/tools/target_filesystem.h"
#include "postprocessing/tools/uuid_helper.h"

namespace Libraries::KRO::PostProcessing::Common {

namespace {

using Platform::Partition;
using Platform::PartitionManager;
using Platform::TableType;

Ref<Partition> partitionAt(const PartitionManager& table, u64 start)
{
    for (std::size_t i = 0; i < table.partitionCount(); ++i)
        if (table.partition(i)->start() == start)
            return table.partition(i);
    return {};
}

// The type check of one target partition on an MBR table.
void checkType(const Ref<Keeper>& keeper, u64 entry, Partition& partition)
{
    const u32 fsType = Tools::getToFileSystemType(keeper, entry);
    if (fsType == Platform::FsNone || Partition::validTypeUUID(fsType, partition.typeUuid()))
        return;
    const Platform::Guid fitting = Partition::defaultTypeUUID(fsType, TableType::Mbr);
    if (fitting == Platform::Guid{})
        return;
    if (!partition.setTypeUUID(fitting))
        LogMessage(Channels::common(), LogError)
            << "Could not set new type "
            << UUIDHelper::formatUUID(UUID::fromBytes(fitting), 'D', UUIDHelper::MixedEndian)->str();
}

// The source and target starts of a partition entry (kind 2), or false with its log line.
bool partitionOffsets(const Ref<Keeper>& keeper, u64 entry, u64& from, u64& to)
{
    const u64 offsets = keeper->findNext(KindPartitionOffset, 0, entry);
    if (offsets == 0) {
        LogMessage(Channels::common(), LogDetail) << "No partition offset for " << Tools::entryLogName(*keeper, entry);
        return false;
    }
    const VariantList source = keeper->getFrom(offsets);
    const VariantList target = keeper->getTo(offsets);
    if (target.empty() || !target.front().isInteger()) {
        LogMessage(Channels::common(), LogError)
            << "Invalid partition offset for " << Tools::entryLogName(*keeper, entry);
        return false;
    }
    to = *target.front().asInteger();
    from = !source.empty() && source.front().isInteger() ? *source.front().asInteger() : to;
    return true;
}

Ref<PartitionManager> targetTable(const Ref<Keeper>& keeper, u64 disk, const char* function)
{
    const auto storage = Tools::getToStorage(keeper, disk);
    if (!storage) {
        LogMessage(Channels::common(), LogError)
            << "Libraries::KRO::PostProcessing::Common::" << function << "Could not get storage for disk "
            << Tools::entryLogName(*keeper, disk);
        return {};
    }
    auto table = PartitionManager::create(storage, 512);
    if (!table)
        LogMessage(Channels::common(), LogError) << "Could not get Partition manager";
    return table;
}

StepResult commit(PartitionManager& table)
{
    return table.commit(true) == 0 ? StepResult::Ok : StepResult::Failed;
}

StepResult adjustTypesOnDisk(const Ref<Keeper>& keeper, u64 disk)
{
    const auto table = targetTable(keeper, disk, "adjustPartitionType");
    if (!table || table->tableType() == TableType::Gpt)
        return StepResult::NothingFound;
    for (const u64 entry : entriesOf(*keeper, KindPartition, disk)) {
        u64 from = 0, to = 0;
        if (!partitionOffsets(keeper, entry, from, to))
            continue;
        for (std::size_t i = 0; i < table->partitionCount(); ++i)
            if (table->partition(i)->start() == to)
                checkType(keeper, entry, *table->partition(i));
    }
    return commit(*table);
}

StepResult transferTypesOnDisk(const Ref<Keeper>& keeper, u64 disk, bool adjust)
{
    const auto target = targetTable(keeper, disk, "transferOrAdjustPartitionType");
    if (!target)
        return StepResult::NothingFound;
    auto source = PartitionManager::create(Tools::getFromStorage(keeper, disk), 512);
    if (source && source->tableType() != target->tableType()) {
        LogMessage(Channels::common(), LogDetail) << "Source and target partitition table types differ";
        source.reset();
    }
    for (const u64 entry : entriesOf(*keeper, KindPartition, disk)) {
        u64 from = 0, to = 0;
        if (!partitionOffsets(keeper, entry, from, to))
            continue;
        const auto targetPartition = partitionAt(*target, to);
        if (source) {
            const auto sourcePartition = partitionAt(*source, from);
            if (!sourcePartition || !targetPartition) {
                LogMessage(Channels::common(), LogError)
                    << "Could not find partition in partitition table: " << Tools::entryLogName(*keeper, entry);
                continue;
            }
            targetPartition->setTypeUUID(sourcePartition->typeUuid());
        }
        if (adjust && targetPartition && target->tableType() == TableType::Mbr)
            checkType(keeper, entry, *targetPartition);
    }
    return commit(*target);
}

} // namespace

StepResult adjustPartitionType(Ref<Keeper> keeper)
{
    return foldOverEntries(keeper, KindDisk, Channels::common(), StepResult::Failed,
                           [&](u64 disk) { return adjustTypesOnDisk(keeper, disk); });
}

StepResult transferOrAdjustPartitionType(Ref<Keeper> keeper, bool adjust)
{
    return foldOverEntries(keeper, KindDisk, Channels::common(), StepResult::Failed,
                           [&](u64 disk) { return transferTypesOnDisk(keeper, disk, adjust); });
}

} // namespace Libraries::KRO::PostProcessing::Common
