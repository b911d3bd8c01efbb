#include "postprocessing/common/disk_ids.h"

#include "platform/core/bytes.h"
#include "platform/core/random.h"
#include "platform/core/string_util.h"
#include "platform/partman/partition_manager.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/not_applied_id.h"
#include "postprocessing/tools/format_fs_id.h"
#include "postprocessing/tools/storage_resolution.h"
#include "postprocessing/tools/uuid_helper.h"

#include <set>

namespace Libraries::KRO::PostProcessing::Common {

namespace {

using Platform::Guid;
using Platform::PartitionManager;

Ref<ByteArray> bytesOf(const ObjectRef& object)
{
    return Platform::refCast<ByteArray>(object);
}

Ref<ByteArray> bytesOf(const Guid& guid)
{
    return ByteArray::create(guid);
}

std::string uuidText(const Guid& guid)
{
    return UUIDHelper::formatUUID(UUID::fromBytes(guid), 'D', UUIDHelper::MixedEndian)->str();
}

std::string signatureText(u32 signature)
{
    return Platform::StrConv::str(signature, 16, 8);
}

Guid randomGuid()
{
    return UUIDHelper::createRandom().toBytes();
}

bool sameBytes(const ByteArray& a, const ByteArray& b)
{
    return a == b;
}

// One disk's state while its ids are handled.
struct DiskPass {
    u64 disk = 0;
    u64 mappingEntry = 0; // the disk's kind-5 entry, 0 when none
    Ref<ByteArray> fromId;
    Ref<ByteArray> customTarget;
    Ref<ByteArray> targetId;
    bool fromSource = false;
    bool change = false;
    Guid newDiskUuid{}; // zero unless this pass changed a GPT disk id
    bool diskChanged = false;
    bool partitionsChanged = false;
    bool commitFailed = false;
    std::vector<u64> recordedPartitions; // kind-9 entries written by this pass
};

class DiskIdChange {
public:
    explicit DiskIdChange(Ref<Keeper> keeper)
        : keeper_(std::move(keeper)), changeDisks_(keeper_->isEnabled(StepDiskIds)),
          changePartitions_(keeper_->isEnabled(StepPartitionIds)), migration_(keeper_->isEnabled(StepGptMigration))
    {
    }

    StepResult run();

private:
    enum class Flow { Next, StopDisks, Abort };

    Flow handleDisk(DiskPass& pass);
    Flow handleGpt(DiskPass& pass, PartitionManager& table);
    Flow handleMbr(DiskPass& pass, PartitionManager& table);
    void recordGptPartitions(DiskPass& pass, PartitionManager& table);
    Flow changeGptPartitions(DiskPass& pass, PartitionManager& table);
    void rederiveMbrPartitions(DiskPass& pass, PartitionManager& table, const std::vector<Guid>& oldUuids,
                               u32 signature);
    u64 matchPartition(u64 disk, std::size_t index, u64 start) const;
    void recordPartition(DiskPass& pass, u64 entry, const Guid& oldUuid, const Guid& newUuid, u64 start);
    void commit(DiskPass& pass, PartitionManager& table);
    void markNotApplied(DiskPass& pass);
    StepResult finish();

    Ref<Keeper> keeper_;
    const bool changeDisks_;
    const bool changePartitions_;
    const bool migration_;
    std::set<Guid> usedPartitionIds_;
    StepResult diskStatus_ = StepResult::NothingFound;
    StepResult partitionStatus_ = StepResult::NothingFound;
};

StepResult DiskIdChange::run()
{
    for (const u64 disk : entriesOf(*keeper_, KindDisk)) {
        DiskPass pass;
        pass.disk = disk;
        pass.change = changeDisks_;
        const Flow flow = handleDisk(pass);
        if (flow == Flow::Abort) {
            usedPartitionIds_.clear();
            return StepResult::Failed;
        }
        if (flow == Flow::StopDisks)
            break;
    }
    return finish();
}

DiskIdChange::Flow DiskIdChange::handleDisk(DiskPass& pass)
{
    pass.mappingEntry = keeper_->findNext(KindDiskIdChange, 0, pass.disk);
    if (pass.mappingEntry != 0) {
        LogMessage(Channels::common(), LogDetail) << "Disk has a idmapping set";
        pass.fromId = bytesOf(keeper_->getFromObject(pass.mappingEntry));
        pass.customTarget = bytesOf(keeper_->getToObject(pass.mappingEntry));
    }
    if (migration_ && !pass.fromId) {
        if (const auto source = PartitionManager::create(Tools::getFromStorage(keeper_, pass.disk), 512)) {
            pass.fromId = source->diskId();
            pass.fromSource = true;
        }
    }
    const auto storage = Tools::getToStorage(keeper_, pass.disk);
    if (!storage) {
        LogMessage(Channels::common(), LogError)
            << "Libraries::KRO::PostProcessing::Common::changeDiskIdsCould not get storage for disk";
        return Flow::Next;
    }
    const auto table = PartitionManager::create(storage, 512);
    if (!table) {
        LogMessage(Channels::common(), LogError) << "Could not get Partition manager";
        return Flow::Next;
    }
    Flow flow = Flow::Next;
    if (table->tableType() == Platform::TableType::Gpt)
        flow = handleGpt(pass, *table);
    else if (table->tableType() == Platform::TableType::Mbr)
        flow = handleMbr(pass, *table);
    if (flow != Flow::Next)
        return flow;

    ObjectRef target = pass.targetId;
    if (pass.commitFailed && pass.diskChanged)
        target = makeRef<NotAppliedId>(pass.targetId);
    keeper_->addObjectEntry(KindDiskIdChange, pass.fromId, target, pass.disk, pass.mappingEntry);
    keeper_->setSucceeded(StepDiskIds, pass.change);
    return Flow::Next;
}

DiskIdChange::Flow DiskIdChange::handleGpt(DiskPass& pass, PartitionManager& table)
{
    const Ref<ByteArray> current = table.diskId();
    if (!pass.fromSource) {
        if (!pass.fromId) {
            pass.fromId = current;
        } else if (pass.fromId->size() != current->size()) {
            LogMessage(Channels::common(), LogError)
                << "Disk from id is set but size does not match the size of the current disk id";
            diskStatus_ = StepResult::Failed;
            return Flow::StopDisks;
        } else if (!sameBytes(*pass.fromId, *current)) {
            LogMessage(Channels::common(), LogError)
                << "Disk from id is set but ids do not match, set: " << Tools::hexBytes(pass.fromId.get())
                << " vs current: " << Tools::hexBytes(current.get());
            diskStatus_ = StepResult::Failed;
            return Flow::StopDisks;
        }
    }
    pass.targetId = pass.customTarget;
    if (migration_ && !changeDisks_ && !pass.customTarget) {
        if (current->bytes().size() == 16 && *current == *ByteArray::create(Guid{})) {
            LogMessage(Channels::common(), LogDetail) << "Disk uuid after migration is invalid, forcing disk id change";
            pass.change = true;
        } else {
            pass.targetId = current;
        }
    }
    if (pass.change) {
        Guid uuid = randomGuid();
        if (pass.targetId && pass.targetId->size() != 16) {
            LogMessage(Channels::common(), LogError)
                << "target id set for GPT with invalid size " << pass.targetId->size();
            diskStatus_ = StepResult::Failed;
            return Flow::StopDisks;
        }
        if (pass.targetId)
            std::copy(pass.targetId->bytes().begin(), pass.targetId->bytes().end(), uuid.begin());
        Guid old{};
        std::copy(current->bytes().begin(), current->bytes().end(), old.begin());
        LogMessage(Channels::common(), LogNotice) << "Setting Target with New Disk UUID: " << uuidText(uuid);
        LogMessage(Channels::common(), LogNotice) << "From old Disk UUID:                " << uuidText(old);
        table.setDiskId(uuid);
        pass.newDiskUuid = uuid;
        pass.targetId = bytesOf(uuid);
        pass.diskChanged = true;
        diskStatus_ = foldResult(diskStatus_, StepResult::Ok);
    }
    if (changePartitions_) {
        if (changeGptPartitions(pass, table) == Flow::Abort)
            return Flow::Abort;
    } else if (migration_) {
        recordGptPartitions(pass, table);
    }
    if (pass.diskChanged || pass.partitionsChanged)
        commit(pass, table);
    return Flow::Next;
}

// Finds the disk's partition entry whose recorded target start (kind 2) is start.
u64 DiskIdChange::matchPartition(u64 disk, std::size_t index, u64 start) const
{
    for (const u64 entry : entriesOf(*keeper_, KindPartition, disk)) {
        const u64 offsetEntry = keeper_->findNext(KindPartitionOffset, 0, entry);
        if (offsetEntry == 0) {
            LogMessage(Channels::common(), LogDetail)
                << "No partition offset for " << Tools::entryLogName(*keeper_, entry);
            continue;
        }
        const VariantList offset = keeper_->getTo(offsetEntry);
        if (offset.empty() || !offset.front().isInteger()) {
            LogMessage(Channels::common(), LogError)
                << "Invalid partition offset for " << Tools::entryLogName(*keeper_, entry);
            continue;
        }
        if (*offset.front().asInteger() == start) {
            LogMessage(Channels::common(), LogDetail)
                << "partition " << index << " with offset " << start << " found with id " << entry;
            return entry;
        }
    }
    return 0;
}

// Migration with partition ids kept: record each matched partition's current UUID.
void DiskIdChange::recordGptPartitions(DiskPass& pass, PartitionManager& table)
{
    for (std::size_t i = 0; i < table.partitionCount(); ++i) {
        const auto partition = table.partition(i);
        const u64 entry = matchPartition(pass.disk, i, partition->start());
        const std::string uuid = uuidText(partition->uuid());
        if (entry == 0) {
            LogMessage(Channels::common(), LogDetail) << "No entry found for partition " << uuid << " with offset "
                                                      << partition->start() << ", not setting uuid";
            continue;
        }
        LogMessage(Channels::common(), LogDetail)
            << "Register " << uuid << " for partition " << entry << " with offset " << partition->start();
        keeper_->addObjectEntry(KindPartitionUuidChange, nullptr, bytesOf(partition->uuid()), entry, 0);
    }
}

DiskIdChange::Flow DiskIdChange::changeGptPartitions(DiskPass& pass, PartitionManager& table)
{
    for (std::size_t i = 0; i < table.partitionCount(); ++i) {
        const auto partition = table.partition(i);
        const u64 entry = matchPartition(pass.disk, i, partition->start());
        const Guid oldUuid = partition->uuid();
        Ref<ByteArray> custom =
            entry ? bytesOf(keeper_->getToObject(keeper_->findNext(KindPartitionUuidChange, 0, entry)))
                  : Ref<ByteArray>();
        if (custom && custom->size() != 16) {
            LogMessage(Channels::common(), LogWarning)
                << "Ignoring provided target partition id:" << Tools::hexBytes(custom.get());
            custom.reset();
        }
        Guid newUuid{};
        if (custom) {
            std::copy(custom->bytes().begin(), custom->bytes().end(), newUuid.begin());
            if (usedPartitionIds_.count(newUuid)) {
                LogMessage(Channels::common(), LogError) << "custom id already exists, aborting post processing";
                return Flow::Abort;
            }
        } else {
            newUuid = randomGuid();
            while (newUuid == pass.newDiskUuid) {
                LogMessage(Channels::common(), LogWarning) << "random id equal to existing Disk id, creating new one";
                newUuid = randomGuid();
            }
            while (usedPartitionIds_.count(newUuid)) {
                LogMessage(Channels::common(), LogWarning) << "random id equal to existing id, creating new one";
                newUuid = randomGuid();
            }
        }
        LogMessage(Channels::common(), LogNotice) << "Setting partition with New UUID: " << uuidText(newUuid);
        LogMessage(Channels::common(), LogNotice) << "From old UUID:                " << uuidText(oldUuid);
        usedPartitionIds_.insert(newUuid);
        partition->setUUID(newUuid);
        pass.partitionsChanged = true;
        recordPartition(pass, entry, oldUuid, newUuid, partition->start());
    }
    partitionStatus_ = foldResult(partitionStatus_, StepResult::Ok);
    return Flow::Next;
}

// Writes the kind-9 change of one partition: on its entry (replacing a custom target there), or
// on the disk when no entry matched.
void DiskIdChange::recordPartition(DiskPass& pass, u64 entry, const Guid& oldUuid, const Guid& newUuid, u64 start)
{
    if (entry != 0) {
        const u64 existing = keeper_->findNext(KindPartitionUuidChange, 0, entry);
        pass.recordedPartitions.push_back(
            keeper_->addObjectEntry(KindPartitionUuidChange, bytesOf(oldUuid), bytesOf(newUuid), entry, existing));
        return;
    }
    LogMessage(Channels::common(), LogDetail)
        << "No entry found for partition " << uuidText(oldUuid) << " with offset " << start;
    pass.recordedPartitions.push_back(
        keeper_->addObjectEntry(KindPartitionUuidChange, bytesOf(oldUuid), bytesOf(newUuid), pass.disk, 0));
}

DiskIdChange::Flow DiskIdChange::handleMbr(DiskPass& pass, PartitionManager& table)
{
    const Ref<ByteArray> current = table.diskId();
    const u32 currentSignature = Platform::ByteView(current->bytes()).u32(0);
    if (!pass.fromSource)
        pass.fromId = current;
    pass.targetId = pass.customTarget;
    if (migration_ && changeDisks_) {
        pass.change = true;
    } else if (migration_ && !pass.customTarget) {
        if (currentSignature == 0) {
            LogMessage(Channels::common(), LogDetail) << "Disk id after migration is 0, forcing disk id change";
            pass.change = true;
        } else {
            pass.targetId = current;
        }
    }
    if (!pass.change)
        return Flow::Next;

    u32 signature = Platform::Random::create()->upTo(0xFFFFFFFF);
    if (pass.targetId && pass.targetId->size() != 4) {
        LogMessage(Channels::common(), LogError) << "target id set for MBR with invalid size " << pass.targetId->size();
        diskStatus_ = StepResult::Failed;
        return Flow::StopDisks;
    }
    if (pass.targetId)
        signature = Platform::ByteView(pass.targetId->bytes()).u32(0);
    LogMessage(Channels::common(), LogNotice) << "Setting Target with New Disk SIG: " << signatureText(signature);
    LogMessage(Channels::common(), LogNotice)
        << "From old Disk SIG:                " << signatureText(currentSignature);

    std::vector<Guid> oldUuids;
    for (std::size_t i = 0; i < table.partitionCount(); ++i)
        oldUuids.push_back(table.partition(i)->uuid());
    const u8 bytes[4] = {u8(signature), u8(signature >> 8), u8(signature >> 16), u8(signature >> 24)};
    table.setDiskId(bytes);
    pass.targetId = ByteArray::create(bytes);
    pass.diskChanged = true;
    rederiveMbrPartitions(pass, table, oldUuids, signature);

    const u32 code = table.commit(true);
    if (code != 0) {
        LogMessage(Channels::common(), LogError) << "Partition manager commit failed with " << code;
        diskStatus_ = StepResult::Failed;
        markNotApplied(pass);
    } else {
        diskStatus_ = foldResult(diskStatus_, StepResult::Ok);
    }
    return Flow::Next;
}

// MBR partition ids follow the signature: each gets the id of the new signature and its entry.
void DiskIdChange::rederiveMbrPartitions(DiskPass& pass, PartitionManager& table, const std::vector<Guid>& oldUuids,
                                         u32 signature)
{
    for (std::size_t i = 0; i < table.partitionCount(); ++i) {
        const auto partition = table.partition(i);
        const u64 entry = matchPartition(pass.disk, i, partition->start());
        u32 oldSignature = 0, entryNumber = 0;
        if (!Platform::Partition::getDiskIDAndEntryFromUUID(oldUuids[i], oldSignature, entryNumber)) {
            LogMessage(Channels::common(), LogWarning)
                << "Failed to retrieve disk ID and entry from MBR UUID for partition with offset "
                << partition->start();
            continue;
        }
        const Guid newUuid = Platform::Partition::getUUIDFromDiskIDAndEntry(signature, entryNumber);
        LogMessage(Channels::common(), LogNotice) << "Setting partition with New Offset: " << uuidText(newUuid);
        LogMessage(Channels::common(), LogNotice) << "From old offset:                   " << uuidText(oldUuids[i]);
        partition->setUUID(newUuid);
        recordPartition(pass, entry, oldUuids[i], newUuid, partition->start());
    }
}

void DiskIdChange::commit(DiskPass& pass, PartitionManager& table)
{
    const u32 code = table.commit(true);
    if (code == 0)
        return;
    LogMessage(Channels::common(), LogError) << "Partition manager commit failed with " << code;
    if (pass.diskChanged)
        diskStatus_ = StepResult::Failed;
    if (pass.partitionsChanged)
        partitionStatus_ = StepResult::Failed;
    markNotApplied(pass);
}

// The table on disk still has the old ids: no later step may write the new ones into a file.
void DiskIdChange::markNotApplied(DiskPass& pass)
{
    pass.commitFailed = true;
    for (const u64 entry : pass.recordedPartitions) {
        const auto attempted = bytesOf(keeper_->getToObject(entry));
        keeper_->addObjectEntry(KindPartitionUuidChange, keeper_->getFromObject(entry),
                                makeRef<NotAppliedId>(attempted), keeper_->getId(entry), entry);
    }
}

StepResult DiskIdChange::finish()
{
    usedPartitionIds_.clear();
    keeper_->setResult(StepDiskIds, changeDisks_ ? diskStatus_ : StepResult::NotActivated);
    keeper_->setResult(StepPartitionIds, changePartitions_ ? partitionStatus_ : StepResult::NotActivated);
    const auto fine = [](StepResult r) { return r == StepResult::NothingFound || r == StepResult::Ok; };
    if (diskStatus_ == StepResult::NothingFound && partitionStatus_ == StepResult::NothingFound)
        return StepResult::NothingFound;
    return fine(diskStatus_) && fine(partitionStatus_) ? StepResult::Ok : StepResult::Failed;
}

} // namespace

StepResult changeDiskIds(Ref<Keeper> keeper)
{
    if (keeperMissing(keeper, Channels::common()))
        return StepResult::Failed;
    return DiskIdChange(std::move(keeper)).run();
}

} // namespace Libraries::KRO::PostProcessing::Common
