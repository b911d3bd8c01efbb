#include "postprocessing/bootloader/syslinux.h"

#include "platform/boot/syslinux.h"
#include "platform/core/error.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/file_tools.h"
#include "postprocessing/tools/storage_resolution.h"

#include <algorithm>
#include <vector>

namespace Libraries::KRO::PostProcessing::Bootloader {

namespace {

using Platform::Area;
using Platform::Syslinux;

constexpr std::size_t kBufferSize = 4096;
constexpr std::size_t kBootSectorSize = 512;
constexpr const char* kCorePaths[] = {"/ldlinux.sys", "/boot/syslinux/ldlinux.sys"};

// The first of the core's places that holds a core image; null when none does.
Ref<Platform::File> openCoreImage(Platform::Filesys& fs, std::string& path)
{
    for (const char* candidate : kCorePaths) {
        auto file = fs.openFile(candidate, Platform::OpenFlags::ReadWriteExisting);
        if (!file)
            continue;
        if (Syslinux::isCoreImg(file)) {
            path = candidate;
            return file;
        }
        LogMessage(Channels::bootloader(), LogDetail) << "File is no syslinux core image: " << candidate;
    }
    return {};
}

// A file copier may leave the core sparse where it holds zeros; syslinux loads every sector, so
// those sectors are written out (the file's size is unchanged) before its sectors are listed.
bool fillHoles(Platform::File& file, const std::string& path)
{
    std::vector<u8> bytes(file.size());
    if (!file.seek(0) || file.read(bytes.data(), bytes.size()) != bytes.size() || !file.seek(0) ||
        file.write(bytes.data(), bytes.size()) != bytes.size() || !file.flush())
        return false;
    LogMessage(Channels::bootloader(), LogNotice) << "Wrote out the holes of " << path;
    return true;
}

// Patches the core inside the file system; the boot sector in buffer is patched beforehand in
// memory, so that a boot sector this code cannot point leaves the core untouched.
StepResult patchCore(const Ref<Keeper>& keeper, u64 partition, std::vector<u8>& buffer)
{
    const auto fs = Tools::getToFSItemFactory(keeper, partition, 1);
    if (!fs) {
        LogMessage(Channels::bootloader(), LogWarning) << "Could not get target fsitemfactory";
        return StepResult::NothingFound;
    }
    std::string path;
    const auto file = openCoreImage(*fs, path);
    if (!file)
        return StepResult::NothingFound;
    auto areas = Tools::collectAllocation(*file);
    if (!areas && Platform::Error::get() == Platform::Error::NotSupported && fillHoles(*file, path))
        areas = Tools::collectAllocation(*file);
    if (!areas) {
        LogMessage(Channels::bootloader(), LogWarning) << "Could not get allocated sector list for " << path;
        return StepResult::Failed;
    }
    if (areas->empty()) {
        LogMessage(Channels::bootloader(), LogWarning) << "No sector list for file " << path;
        return StepResult::Failed;
    }
    if (!Syslinux::patchBootSector(areas->data(), areas->size(), buffer.data(), kBootSectorSize)) {
        LogMessage(Channels::bootloader(), LogError) << "Could not update BPB loader " << path;
        return StepResult::Failed;
    }
    if (!Syslinux::patchCoreImg(areas->data(), areas->size(), file) || !fs->flush()) {
        LogMessage(Channels::bootloader(), LogError) << "Could not update " << path;
        return StepResult::Failed;
    }
    return StepResult::Ok;
}

StepResult adjustPartition(const Ref<Keeper>& keeper, u64 partition)
{
    const auto storage = Tools::getToStorage(keeper, partition);
    if (!storage)
        return StepResult::NothingFound;
    if (storage->elementSize() != kBootSectorSize) {
        LogMessage(Channels::bootloader(), LogWarning)
            << "Disk with unsupported sector size " << storage->elementSize();
        return StepResult::NothingFound;
    }
    std::vector<u8> buffer(kBufferSize, 0);
    if (storage->read(0, 1, buffer.data()) != 1) {
        LogMessage(Channels::bootloader(), LogError) << "Could not read bpb";
        return StepResult::Failed;
    }
    if (!Syslinux::isBootsector(buffer.data(), kBootSectorSize))
        return StepResult::NothingFound;
    const std::vector<u8> before(buffer.begin(), buffer.begin() + kBootSectorSize);
    // The file system is done with (flushed and closed) before its first sector is written.
    if (const StepResult core = patchCore(keeper, partition, buffer); core != StepResult::Ok)
        return core;
    LogMessage(Channels::bootloader(), LogDetail) << "Adjusting Syslinux BPB loader";
    if (std::equal(before.begin(), before.end(), buffer.begin()))
        return StepResult::Ok;
    if (storage->write(0, 1, buffer.data()) != 1 || !storage->flush()) {
        LogMessage(Channels::bootloader(), LogError) << "Could not write bpb";
        return StepResult::Failed;
    }
    return StepResult::Ok;
}

} // namespace

StepResult adjustSyslinux(Ref<Keeper> keeper)
{
    return foldOverEntries(keeper, KindPartition, Channels::bootloader(), StepResult::Failed,
                           [&](u64 partition) { return adjustPartition(keeper, partition); });
}

} // namespace Libraries::KRO::PostProcessing::Bootloader
