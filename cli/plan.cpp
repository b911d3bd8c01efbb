#include "cli/plan.h"

#include "cli/windows_boot_plan.h"
#include "platform/core/error.h"
#include "platform/partman/partition_manager.h"
#include "platform/storage/area_translator.h"
#include "platform/storage/cached_storage.h"
#include "platform/storage/file_storage.h"
#include "platform/storage/memory_budget.h"
#include "platform/storage/window_storage.h"
#include "postprocessing/pp_handler.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Cli {

namespace PP = Libraries::KRO::PostProcessing;

namespace {

std::string checkMedium(const std::string& path, const char* role, int mode)
{
    using Platform::FileStorage;
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        return std::string("cannot open ") + role + " '" + path + "': " + std::strerror(errno);
    if (!S_ISREG(info.st_mode) && !S_ISBLK(info.st_mode))
        return std::string("cannot open ") + role + " '" + path + "': not a disk image file or block device";
    if (mode == O_RDWR) {
        // Opened as the run will open it: exclusively, and not while anything holds it.
        if (!FileStorage::open(path, FileStorage::Access::ReadWrite))
            return std::string("cannot open ") + role + " '" + path +
                   "': " + (FileStorage::openProblem().empty() ? std::strerror(errno) : FileStorage::openProblem());
        return {};
    }
    const int fd = ::open(path.c_str(), mode | O_CLOEXEC);
    if (fd < 0)
        return std::string("cannot open ") + role + " '" + path + "': " + std::strerror(errno);
    ::close(fd);
    return {};
}

using Platform::CachedStorage;
using Platform::FileStorage;
using Platform::makeRef;
using Platform::PartitionManager;
using Platform::Ref;

PP::Variant integer(PP::u64 value)
{
    return PP::Variant::integer(value);
}

PP::Variant uuidValue(const Platform::Guid& uuid)
{
    return PP::Variant::bytes({uuid.begin(), uuid.end()});
}

// A one-name list, as the by-id name operations take them.
PP::Variant nameList(const std::string& text)
{
    return PP::Variant::list({{"", PP::Variant::string(text)}});
}

// The folder a partition is mounted at, or empty.
std::string mountedFolder(const Options& options, std::size_t target, unsigned partition)
{
    for (const auto& entry : options.mounted)
        if (entry.target == target && entry.partition == partition)
            return entry.path;
    return {};
}

// The partition side of one disk: per partition of the target's table (in table order) an entry
// (kind 1), its storages as windows over the images (kind 8), its start sectors (kind 2) and its
// sector sizes (kind 3). Source values come from the source partition at the same position, and
// with a source the disk gets the map of its partitions' sectors (kind 7).
void describePartitions(const Ref<PP::Keeper>& keeperRef, PP::u64 disk, const Ref<Interfaces::Storage>& target,
                        const Ref<Interfaces::Storage>& source, const Options& options, std::size_t targetIndex,
                        std::vector<Refusal>* refused)
{
    PP::Keeper& keeper = *keeperRef;
    const auto targetTable = PartitionManager::create(target, 512);
    if (!targetTable) {
        // A disk without a table has nothing to refuse; one whose table was refused does.
        if (refused && Platform::Error::get() == Platform::Error::Corrupt)
            refused->push_back({options.targets[targetIndex], "partition table", Platform::Error::text()});
        return;
    }
    const auto sourceTable = source ? PartitionManager::create(source, 512) : Ref<PartitionManager>();
    std::vector<Platform::RangeTranslator::Range> copied;
    for (std::size_t i = 0; i < targetTable->partitionCount(); ++i) {
        const auto partition = targetTable->partition(i);
        const auto sourcePartition = sourceTable ? sourceTable->partition(i) : Ref<Platform::Partition>();
        PP::VariantList from;
        if (sourcePartition)
            from.push_back(uuidValue(sourcePartition->uuid()));
        // A mounted partition's target names its folder, where its files are edited.
        const std::string folder = mountedFolder(options, targetIndex, partition->entryIndex() + 1);
        const PP::u64 entry =
            keeper.addEntry(PP::KindPartition, from,
                            {folder.empty() ? uuidValue(partition->uuid()) : PP::Variant::string(folder)}, disk, 0);
        if (targetIndex < options.diskIdNames.size()) {
            const auto& names = options.diskIdNames[targetIndex];
            const PP::u64 number = partition->entryIndex();
            PP::PPHandler::addLinuxPartIdString(keeperRef, entry, nameList(names.oldModel), nameList(names.oldSerial),
                                                number, nameList(names.newModel), nameList(names.newSerial), number);
        }

        const auto targetWindow = Platform::WindowStorage::create(target, partition->start(), partition->size());
        const auto sourceWindow =
            sourcePartition ? Platform::WindowStorage::create(source, sourcePartition->start(), sourcePartition->size())
                            : Ref<Platform::WindowStorage>();
        keeper.addObjectEntry(PP::KindPartitionStorage, sourceWindow, targetWindow, entry, 0);
        if (isEfiPartition(options, targetIndex, partition->entryIndex() + 1,
                           Platform::Partition::isEfiSystemType(partition->typeUuid())))
            keeper.addEntry(PP::KindEfiMarker, {integer(1)}, {}, entry, 0);

        if (sourcePartition)
            copied.push_back(
                {sourcePartition->start(), partition->start(), std::min(sourcePartition->size(), partition->size())});
        const PP::u64 sourceStart = sourcePartition ? sourcePartition->start() : partition->start();
        keeper.addEntry(PP::KindPartitionOffset, {integer(sourceStart)}, {integer(partition->start())}, entry, 0);
        const PP::u64 sourceSector = source ? source->elementSize() : target->elementSize();
        keeper.addEntry(PP::KindElementSize, {integer(sourceSector)}, {integer(target->elementSize())}, entry, 0);
    }
    // Partition n of the source became partition n of the target, sector by sector.
    if (const auto translator = Platform::RangeTranslator::create(std::move(copied)); translator && sourceTable)
        keeper.addObjectEntry(PP::KindAreaTranslator, {}, translator, disk, 0);
}

} // namespace

std::string checkMedia(const Options& options)
{
    for (const auto& target : options.targets)
        if (auto error = checkMedium(target, "target", options.dryRun ? O_RDONLY : O_RDWR); !error.empty())
            return error;
    for (const auto& source : options.sources)
        if (auto error = checkMedium(source, "source", O_RDONLY); !error.empty())
            return error;
    return {};
}

Platform::Ref<PP::Keeper> buildKeeper(const Options& options, std::vector<Refusal>* refused,
                                      const TargetPreparation& prepare)
{
    auto keeper = PP::Keeper::create();
    if (!keeper)
        return {};
    if (options.preset)
        PP::Keeper::setPreset(keeper, nullptr, PP::Keeper::Preset(*options.preset));
    for (const auto& change : options.switches)
        keeper->setEnabled(change.slot, change.on);

    // One budget for the caches and the changes steps stage, whatever their number.
    const std::size_t cacheLimit = options.memoryLimitMiB << 20;
    Platform::MemoryBudget::setLimit(cacheLimit);
    for (std::size_t i = 0; i < options.targets.size(); ++i) {
        PP::VariantList from;
        if (i < options.sources.size())
            from.push_back(PP::Variant::string(options.sources[i]));
        const PP::u64 disk = keeper->addEntry(PP::KindDisk, from, {PP::Variant::string(options.targets[i])}, 0, 0);
        // Every step reads and writes each disk through one cache: a sector is read once per run
        // and written once per step that changes it.
        const auto targetFile = FileStorage::open(
            options.targets[i], options.dryRun ? FileStorage::Access::ReadOnly : FileStorage::Access::ReadWrite);
        const auto sourceFile = i < options.sources.size()
                                    ? FileStorage::open(options.sources[i], FileStorage::Access::ReadOnly)
                                    : Ref<FileStorage>();
        if (!targetFile || (i < options.sources.size() && !sourceFile))
            return {};
        const auto target = makeRef<CachedStorage>(targetFile, cacheLimit);
        if (prepare && !prepare(*targetFile, *target))
            return {};
        const auto source = sourceFile ? makeRef<CachedStorage>(sourceFile, cacheLimit) : Ref<CachedStorage>();
        keeper->addObjectEntry(PP::KindDiskStorage, source, target, disk, 0);
        describePartitions(keeper, disk, target, source, options, i, refused);
        if (!keeper->isEnabled(PP::StepDiskIds))
            recordKeptDiskId(*keeper, disk, target, source);
        if (i < options.diskIdNames.size()) {
            const auto& names = options.diskIdNames[i];
            PP::PPHandler::addLinuxDiskIdString(keeper, disk, nameList(names.oldModel), nameList(names.oldSerial),
                                                nameList(names.newModel), nameList(names.newSerial));
        }
        if (options.geometry) {
            const auto& g = *options.geometry;
            keeper->addEntry(PP::KindDiskGeometry, {}, {PP::PPHandler::encodeCHS(g.cylinders, g.heads, g.sectors)},
                             disk, 0);
        }
        if (options.computerName)
            keeper->addEntry(PP::KindComputerName, {}, {PP::Variant::string(*options.computerName)}, disk, 0);
    }
    if (keeper->isEnabled(PP::StepCreateBcd) && !keeper->isEnabled(PP::StepGptMigration))
        recordBcdTemplate(keeper, options);
    return keeper;
}

} // namespace Cli
