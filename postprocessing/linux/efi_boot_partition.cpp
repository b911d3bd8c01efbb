#include "postprocessing/linux/efi_boot_partition.h"

#include "platform/migrate/efi_partition.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/storage_resolution.h"

namespace Libraries::KRO::PostProcessing::Linux {

namespace {

constexpr u32 kSectorSize = 512;

bool hasEfiPartition(const Keeper& keeper, u64 disk)
{
    for (const u64 partition : entriesOf(keeper, KindPartition, disk))
        if (marksEfiPartition(keeper, partition))
            return true;
    return false;
}

// The disk entry's first source value as a path: text as it is, a number as its decimal text.
std::optional<std::string> sourcePath(const Keeper& keeper, u64 disk)
{
    const VariantList from = keeper.getFrom(disk);
    if (from.empty())
        return std::nullopt;
    if (const auto* text = from.front().asString())
        return *text;
    if (const auto number = from.front().asInteger())
        return std::to_string(*number);
    return std::nullopt;
}

} // namespace

StepResult populateEfiBootPartition(Ref<Keeper> keeper)
{
    if (keeperMissing(keeper, Channels::linuxSys()))
        return StepResult::Failed;
    for (const u64 disk : entriesOf(*keeper, KindDisk)) {
        if (!hasEfiPartition(*keeper, disk))
            continue;
        LogMessage(Channels::linuxSys(), LogDetail) << "Found partition with efi boot usage";
        const auto path = sourcePath(*keeper, disk);
        const auto target = Tools::getToStorage(keeper, disk);
        const auto targetTable = Platform::PartitionManager::create(target, kSectorSize);
        if (path) {
            Platform::Migrate::Utils::populateEFIPartition(*path, target, targetTable);
        } else {
            const auto source = Tools::getFromStorage(keeper, disk);
            Platform::Migrate::Utils::populateEFIPartition(
                source, Platform::PartitionManager::create(source, kSectorSize), target, targetTable);
        }
        return StepResult::Ok;
    }
    LogMessage(Channels::linuxSys(), LogWarning) << "Found no efi boot id";
    return StepResult::NothingFound;
}

} // namespace Libraries::KRO::PostProcessing::Linux
