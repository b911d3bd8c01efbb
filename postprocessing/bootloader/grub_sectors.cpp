#include "postprocessing/bootloader/grub_sectors.h"

#include "platform/boot/grub.h"
#include "platform/partman/partition_manager.h"
#include "platform/storage/window_storage.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/file_tools.h"
#include "postprocessing/tools/storage_resolution.h"

#include <optional>
#include <vector>

namespace Libraries::KRO::PostProcessing::Bootloader {

namespace {

using Platform::Area;
using Platform::Grub;
using Sector = std::vector<u8>;

constexpr u32 kSectorSize = 512;
constexpr u64 kMbrGap = 1;
constexpr const char* kCorePaths[] = {"/boot/grub/i386-pc/core.img", "/grub/i386-pc/core.img"};

void log(Platform::LogLevel level, const std::string& text)
{
    LogMessage(Channels::bootloader(), level) << text;
}

bool isGrub2(const Sector& sector)
{
    return Grub::grubBootSectorType(sector.data(), sector.size()) == Grub::Grub2;
}

u64 bootStart(const Sector& sector)
{
    return Grub::grubBootSectorStart(sector.data(), sector.size());
}

std::optional<Sector> readSector(Interfaces::Storage& storage, u64 index)
{
    Sector sector(kSectorSize);
    if (storage.read(index, 1, sector.data()) != 1)
        return std::nullopt;
    return sector;
}

bool writeSector(Interfaces::Storage& storage, u64 index, const Sector& sector)
{
    return storage.write(index, 1, sector.data()) == 1 && storage.flush();
}

// The source and target start of a partition entry (kind 2), the target's when none is recorded.
struct Placement {
    u64 sourceStart;
    u64 targetStart;
    u64 sourceSectors;
};

std::optional<u64> integerAt(const VariantList& list)
{
    return list.empty() ? std::nullopt : list.front().asInteger();
}

std::optional<Placement> placementOf(const Ref<Keeper>& keeper, u64 partition)
{
    const auto storage = Tools::getToStorage(keeper, partition);
    const auto window = refCast<Platform::WindowStorage>(storage);
    const u64 offsets = keeper->findNext(KindPartitionOffset, 0, partition);
    const auto target = offsets ? integerAt(keeper->getTo(offsets)) : std::nullopt;
    if (!target && !window)
        return std::nullopt;
    const u64 targetStart = target ? *target : window->first();
    const auto source = offsets ? integerAt(keeper->getFrom(offsets)) : std::nullopt;
    const auto sourceStorage = Tools::getFromStorage(keeper, partition);
    const u64 sectors = sourceStorage ? sourceStorage->elementCount() : storage ? storage->elementCount() : 0;
    return Placement{source.value_or(targetStart), targetStart, sectors};
}

bool inside(u64 sector, const Placement& placement)
{
    return sector >= placement.sourceStart && sector - placement.sourceStart < placement.sourceSectors;
}

// A core's sectors as its first sector lists them, and where the copy put them.
struct CoreMove {
    std::vector<Area> before;
    std::vector<Area> after;
};

// Patches the core's first sector (where the copy put it) and the MBR for a moved core, both in
// memory before anything is written, then writes the core's sector first.
StepResult moveCoreOnDisk(Interfaces::Storage& disk, Sector mbr, Sector core, const CoreMove& move)
{
    if (move.before == move.after) {
        log(LogNotice, "Grub sector list is equal, Grub was not moved");
        return StepResult::NothingFound;
    }
    if (!Grub::patchCoreImg(move.after, core.data(), core.size()) ||
        !Grub::patchBootSector(move.after, mbr.data(), mbr.size())) {
        log(LogError, "Could not patch the grub sector list");
        return StepResult::Failed;
    }
    if (!writeSector(disk, move.after.front().start, core) || !writeSector(disk, 0, mbr)) {
        log(LogError, "Could not write the grub sector list");
        return StepResult::Failed;
    }
    return StepResult::Ok;
}

// The copy's own map of old to new sectors; nothing when it does not know where the core went.
std::optional<StepResult> followTranslator(Interfaces::Storage& disk, const Sector& mbr,
                                           const Interfaces::AreaTranslator& translator)
{
    const u64 start = bootStart(mbr);
    const auto newStart = translator.translate({start, 1});
    if (!newStart)
        return std::nullopt;
    const auto core = readSector(disk, newStart->front().start);
    const auto before = core ? Grub::grubCoreImageSectors(core->data(), core->size(), start) : std::nullopt;
    if (!before) {
        // The core's partition was copied file by file after all; the other ways may find it.
        log(LogWarning, "Coudl not get old list at new startsector");
        return std::nullopt;
    }
    const auto after = Grub::grubAdjustSectorlist(*before, translator);
    if (!after) {
        log(LogError, "Part of the grub core image was not copied sector by sector");
        return StepResult::Failed;
    }
    log(LogDetail, "Adjusted grub area list based on old list");
    return moveCoreOnDisk(disk, mbr, *core, {*before, *after});
}

std::optional<StepResult> followTranslatorEntry(const Ref<Keeper>& keeper, u64 diskEntry, Interfaces::Storage& disk,
                                                const Sector& mbr)
{
    const u64 entry = keeper->findNext(KindAreaTranslator, 0, diskEntry);
    if (entry == 0)
        return std::nullopt;
    auto translator = refCast<Interfaces::AreaTranslator>(keeper->getToObject(entry));
    if (!translator)
        translator = refCast<Interfaces::AreaTranslator>(keeper->getFromObject(entry));
    if (!translator) {
        log(LogWarning, "Disk translator id found but no translator object");
        return std::nullopt;
    }
    return followTranslator(disk, mbr, *translator);
}

// The partition entry of the disk whose target starts at a sector.
u64 partitionStartingAt(const Ref<Keeper>& keeper, u64 diskEntry, u64 start)
{
    for (const u64 partition : entriesOf(*keeper, KindPartition, diskEntry))
        if (const auto placement = placementOf(keeper, partition); placement && placement->targetStart == start)
            return partition;
    return 0;
}

// A core embedded in a GPT BIOS boot partition moves with that partition, all in one piece.
std::optional<StepResult> followBiosBootPartition(const Ref<Keeper>& keeper, u64 diskEntry,
                                                  const Ref<Interfaces::Storage>& disk, const Sector& mbr)
{
    const auto table = Platform::PartitionManager::create(disk, kSectorSize);
    Ref<Platform::Partition> biosBoot;
    for (std::size_t i = 0; table && i < table->partitionCount() && !biosBoot; ++i)
        if (table->partition(i)->typeUuid() == Grub::kBiosBootPartitionType)
            biosBoot = table->partition(i);
    if (!biosBoot)
        return std::nullopt;
    log(LogDetail, "Bios Boot UUID found");
    const u64 entry = partitionStartingAt(keeper, diskEntry, biosBoot->start());
    const auto placement = entry ? placementOf(keeper, entry) : std::nullopt;
    Placement where = placement.value_or(Placement{biosBoot->start(), biosBoot->start(), biosBoot->size()});
    const u64 start = bootStart(mbr);
    if (!inside(start, where)) {
        log(LogWarning, "No old areas found in bios boot partition");
        return std::nullopt;
    }
    const u64 newStart = where.targetStart + (start - where.sourceStart);
    const auto core = readSector(*disk, newStart);
    const auto before = core ? Grub::grubCoreImageSectors(core->data(), core->size(), start) : std::nullopt;
    if (!before) {
        log(LogError, "Coudl not get old list at new startsector");
        return StepResult::Failed;
    }
    if (before->size() != 1) {
        log(LogError, "More than one area in bios boot partition");
        return StepResult::Failed;
    }
    const Area after{newStart, before->front().count};
    if (after.start + after.count > biosBoot->start() + biosBoot->size()) {
        log(LogError, "The grub core image does not fit into the bios boot partition");
        return StepResult::Failed;
    }
    const StepResult result = moveCoreOnDisk(*disk, mbr, *core, {*before, {after}});
    if (result == StepResult::Ok)
        log(LogDetail, "Bios boot partition updated");
    return result;
}

// Where a file lies, as sectors of the disk its partition starts on.
std::optional<std::vector<Area>> diskAreasOf(Platform::File& file, u64 partitionStart)
{
    const auto areas = Tools::collectAllocation(file);
    if (!areas)
        return std::nullopt;
    std::vector<Area> onDisk;
    for (const Area& area : *areas)
        Platform::appendArea(onDisk, {area.start + partitionStart, area.count});
    return onDisk;
}

Ref<Platform::File> openCoreFile(Platform::Filesys& fs, std::string& path)
{
    for (const char* candidate : kCorePaths)
        if (auto file = fs.openFile(candidate, Platform::OpenFlags::ReadWriteExisting)) {
            path = candidate;
            return file;
        }
    return {};
}

// A blocklist install: core.img is a file, and the boot sectors that load it list its sectors.
// Nothing when the partition holds no core that a boot sector loads.
std::optional<StepResult> followCoreFile(const Ref<Keeper>& keeper, u64 partition, Interfaces::Storage& disk,
                                         std::optional<Sector> mbr)
{
    const auto placement = placementOf(keeper, partition);
    const auto partitionStorage = Tools::getToStorage(keeper, partition);
    auto partitionBoot = partitionStorage ? readSector(*partitionStorage, 0) : std::nullopt;
    if (partitionBoot && !isGrub2(*partitionBoot))
        partitionBoot.reset();
    if (!placement || (!mbr && !partitionBoot))
        return std::nullopt;
    {
        const auto fs = Tools::getToFSItemFactory(keeper, partition, 1);
        std::string path;
        const auto file = fs ? openCoreFile(*fs, path) : Ref<Platform::File>();
        if (!file)
            return std::nullopt;
        const auto after = diskAreasOf(*file, placement->targetStart);
        if (!after || after->empty()) {
            log(LogWarning, "Could not get allocated sector list for " + path);
            return StepResult::Failed;
        }
        Sector core(kSectorSize);
        if (!file->seek(0) || file->read(core.data(), kSectorSize) != kSectorSize) {
            log(LogError, "Could not read " + path);
            return StepResult::Failed;
        }
        // The core's own list compared with where the file lies now; the first sector is where
        // a boot sector says.
        const auto before = Grub::grubCoreImageSectors(core.data(), kSectorSize, after->front().start);
        if (!before) {
            log(LogError, "Coudl not get old list at new startsector");
            return StepResult::Failed;
        }
        // Only the boot sectors that loaded this core follow it.
        if (partitionBoot && inside(bootStart(*partitionBoot), *placement))
            log(LogDetail, "Adjusting Grub BPB loader");
        else
            partitionBoot.reset();
        if (mbr && inside(bootStart(*mbr), *placement)) {
            log(LogDetail, "MBR offset points to source partition, update it");
            log(LogDetail, "Adjusting Grub MBR loader");
        } else if (mbr) {
            log(LogDetail, "MBR points to different source partition, skip update");
            mbr.reset();
        }
        if (!partitionBoot && !mbr)
            return std::nullopt;
        const auto pointsRight = [&](const std::optional<Sector>& boot) {
            return !boot || bootStart(*boot) == after->front().start;
        };
        if (*before == *after && pointsRight(mbr) && pointsRight(partitionBoot)) {
            log(LogNotice, "Grub sector list is equal, Grub was not moved");
            return StepResult::NothingFound;
        }
        const auto patch = [&](std::optional<Sector>& boot) {
            return !boot || Grub::patchBootSector(*after, boot->data(), kSectorSize);
        };
        if (!Grub::patchCoreImg(*after, core.data(), kSectorSize) || !patch(mbr) || !patch(partitionBoot)) {
            log(LogError, "Could not patch the grub sector list of " + path);
            return StepResult::Failed;
        }
        if (!file->seek(0) || file->write(core.data(), kSectorSize) != kSectorSize || !file->flush() || !fs->flush()) {
            log(LogError, "Could not update " + path);
            return StepResult::Failed;
        }
    }
    // The file system is closed before the boot sectors are written.
    if ((partitionBoot && !writeSector(*partitionStorage, 0, *partitionBoot)) || (mbr && !writeSector(disk, 0, *mbr))) {
        log(LogError, "Could not write the grub boot sector");
        return StepResult::Failed;
    }
    return StepResult::Ok;
}

// Nothing when no partition holds a core that a boot sector loads.
std::optional<StepResult> followCoreFiles(const Ref<Keeper>& keeper, u64 diskEntry, Interfaces::Storage& disk,
                                          const std::optional<Sector>& mbr)
{
    std::optional<StepResult> result;
    for (const u64 partition : entriesOf(*keeper, KindPartition, diskEntry))
        if (const auto found = followCoreFile(keeper, partition, disk, mbr))
            result = foldResult(result.value_or(StepResult::NothingFound), *found);
    return result;
}

StepResult adjustDisk(const Ref<Keeper>& keeper, u64 diskEntry)
{
    const auto disk = Tools::getToStorage(keeper, diskEntry);
    if (!disk)
        return StepResult::NothingFound;
    if (disk->elementSize() != kSectorSize) {
        LogMessage(Channels::bootloader(), LogWarning) << "Disk with unsupported sector size: " << disk->elementSize();
        return StepResult::NothingFound;
    }
    const auto mbr = readSector(*disk, 0);
    if (!mbr) {
        log(LogError, "Could not read mbr");
        return StepResult::Failed;
    }
    if (!isGrub2(*mbr))
        return followCoreFiles(keeper, diskEntry, *disk, std::nullopt).value_or(StepResult::NothingFound);
    log(LogDetail, "Found Grub bootsector in MBR");
    if (bootStart(*mbr) == kMbrGap) {
        log(LogNotice, "Grub is stored in the mbr reserved space so no adjustment needed");
        return StepResult::NothingFound;
    }
    if (const auto result = followTranslatorEntry(keeper, diskEntry, *disk, *mbr))
        return *result;
    if (const auto result = followBiosBootPartition(keeper, diskEntry, disk, *mbr))
        return *result;
    log(LogDetail, "Grub not in mbr reserved space, trying partitions");
    if (const auto result = followCoreFiles(keeper, diskEntry, *disk, mbr))
        return *result;
    // The boot code loads a core from a sector that holds none any more: the disk would not boot.
    LogMessage(Channels::bootloader(), LogError)
        << "No grub core image found for the MBR's sector " << bootStart(*mbr) << "; the disk may not boot";
    return StepResult::Failed;
}

} // namespace

StepResult adjustGrubSectorLists(Ref<Keeper> keeper)
{
    return foldOverEntries(keeper, KindDisk, Channels::bootloader(), StepResult::Failed,
                           [&](u64 disk) { return adjustDisk(keeper, disk); });
}

} // namespace Libraries::KRO::PostProcessing::Bootloader
