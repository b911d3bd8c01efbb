#include "postprocessing/common/media_direct.h"

#include "platform/boot/grub.h"
#include "platform/partman/partition_manager.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/storage_resolution.h"

#include <vector>

namespace Libraries::KRO::PostProcessing::Common {

namespace {

constexpr u64 kMediaDirectSector = 3;

// Whether sector 3 of this disk may be cleared; logs why not.
bool mayClear(Interfaces::Storage& storage, const Ref<Interfaces::Storage>& handle)
{
    if (storage.elementSize() != 512) {
        LogMessage(Channels::common(), LogDetail) << "Sector size != 512, not atempting to clear MediaDirect sector";
        return false;
    }
    const auto table = Platform::PartitionManager::create(handle, 512);
    if (!table) {
        LogMessage(Channels::common(), LogDetail)
            << "Could not determin partition table type, not atempting to clear MediaDirect sector";
        return false;
    }
    if (table->tableType() != Platform::TableType::Mbr) {
        LogMessage(Channels::common(), LogDetail) << "No MBR Partitoning, not atempting to clear MediaDirect sector";
        return false;
    }
    std::vector<u8> sector0(storage.elementSize());
    if (storage.read(0, 1, sector0.data()) != 1) {
        LogMessage(Channels::common(), LogError) << "Could not read sector 0";
        return false;
    }
    if (Platform::Grub::grubBootSectorType(sector0.data(), sector0.size()) != Platform::Grub::NotGrub &&
        Platform::Grub::grubBootSectorStart(sector0.data(), sector0.size()) <= kMediaDirectSector) {
        LogMessage(Channels::common(), LogDetail)
            << "Found Grub embedded in MBR reserved area, not atempting to clear MediaDirect sector";
        return false;
    }
    return true;
}

StepResult clearSector(const Ref<Keeper>& keeper, u64 disk)
{
    const auto storage = Tools::getToStorage(keeper, disk);
    if (!storage) {
        LogMessage(Channels::common(), LogError)
            << "Libraries::KRO::PostProcessing::Common::removeMediaDirectCould not get storage for disk";
        return StepResult::NothingFound;
    }
    if (!mayClear(*storage, storage))
        return StepResult::NothingFound;
    // Written without looking: whatever sector 3 holds, it is not ours to keep.
    const std::vector<u8> zeros(storage->elementSize(), 0);
    return storage->write(kMediaDirectSector, 1, zeros.data()) == 1 ? StepResult::Ok : StepResult::NothingFound;
}

} // namespace

StepResult removeMediaDirect(Ref<Keeper> keeper)
{
    return foldOverEntries(keeper, KindDisk, Channels::common(), StepResult::NothingFound,
                           [&](u64 disk) { return clearSector(keeper, disk); });
}

} // namespace Libraries::KRO::PostProcessing::Common
