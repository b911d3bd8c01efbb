#pragma once
// Fills a keeper the way a copy application does: a disk entry with its storage, and one partition
// entry per partition of the disk's table with its storage and its target start.

#include "platform/partman/partition_manager.h"
#include "platform/storage/window_storage.h"
#include "postprocessing/keeper.h"

#include <string>
#include <vector>

namespace TestSupport {

inline std::uint64_t addDiskWithPartitions(Libraries::KRO::PostProcessing::Keeper& keeper,
                                           const Platform::Ref<Interfaces::Storage>& storage)
{
    namespace PP = Libraries::KRO::PostProcessing;
    const PP::u64 disk = keeper.addEntry(PP::KindDisk, {}, {}, 0, 0);
    keeper.addObjectEntry(PP::KindDiskStorage, storage, storage, disk, 0);
    const auto table = Platform::PartitionManager::create(storage, 512);
    for (std::size_t i = 0; table && i < table->partitionCount(); ++i) {
        const PP::u64 partition = keeper.addEntry(PP::KindPartition, {}, {}, disk, 0);
        const auto& part = *table->partition(i);
        keeper.addObjectEntry(PP::KindPartitionStorage, nullptr,
                              Platform::WindowStorage::create(storage, part.start(), part.size()), partition, 0);
        keeper.addEntry(PP::KindPartitionOffset, {}, {PP::Variant::integer(table->partition(i)->start())}, partition,
                        0);
    }
    return disk;
}

// A disk entry with one partition per host folder (the folder is the partition's file system), the
// given steps switched on, and the computer name, when there is one, set on the disk.
inline Platform::Ref<Libraries::KRO::PostProcessing::Keeper> keeperForFolders(const std::vector<std::string>& roots,
                                                                              const std::vector<std::int32_t>& enabled,
                                                                              const std::string& computerName = "")
{
    namespace PP = Libraries::KRO::PostProcessing;
    auto keeper = PP::Keeper::create();
    const PP::u64 disk = keeper->addEntry(PP::KindDisk, {}, {}, 0, 0);
    if (!computerName.empty())
        keeper->addEntry(PP::KindComputerName, {}, {PP::Variant::string(computerName)}, disk, 0);
    for (const auto& root : roots)
        keeper->addEntry(PP::KindPartition, {}, {PP::Variant::string(root)}, disk, 0);
    for (const std::int32_t step : enabled)
        keeper->setEnabled(step, true);
    return keeper;
}

} // namespace TestSupport
