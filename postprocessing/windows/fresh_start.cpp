#include "postprocessing/windows/fresh_start.h"

#include "platform/core/error.h"
#include "platform/windows/system_hives.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/windows/windows_volume.h"

namespace Libraries::KRO::PostProcessing::Windows {

namespace {

using Platform::Error;
using Platform::Filesys;
using Platform::OpenFlags::ReadWriteExisting;

constexpr const char* kHiberfile = "/hiberfil.sys";
constexpr const char* kBootStatus = "/Windows/bootstat.dat";
constexpr std::uint64_t kCleanShutdownOffset = 11;

Platform::LogMessage error()
{
    return Platform::LogMessage(Channels::windows(), LogError);
}

// fn on every target partition's volume that has files, folded.
StepResult foldWindowsVolumes(const Ref<Keeper>& keeper, bool discardSession,
                              const std::function<StepResult(const WindowsVolume&)>& fn)
{
    return foldOverEntries(keeper, KindPartition, Channels::windows(), StepResult::Failed, [&](u64 partition) {
        const auto volume = WindowsVolume::open(keeper, partition, discardSession);
        return volume.files() ? fn(volume) : StepResult::NothingFound;
    });
}

// change on the file at path opened for writing; NothingFound (quietly) when it is not there.
StepResult changeExistingFile(const WindowsVolume& volume, const char* path, const char* name,
                              const std::function<StepResult(Filesys&, Platform::File&)>& change)
{
    Filesys& fs = *volume.files();
    if (volume.refused()) {
        // Only a volume that holds the file is refused.
        const bool holdsIt = fs.openFile(path, Platform::OpenFlags::Read) != nullptr;
        return holdsIt && !volume.mayChange(name) ? StepResult::Failed : StepResult::NothingFound;
    }
    Error::set(Error::None);
    const auto file = fs.openFile(path, ReadWriteExisting);
    if (file)
        return change(fs, *file);
    if (Error::get() == Error::PathNotFound)
        return StepResult::NothingFound;
    error() << "Could not open " << name << ": " << Error::get();
    return StepResult::Failed;
}

StepResult flushed(Filesys& fs)
{
    if (fs.flush())
        return StepResult::Ok;
    error() << "Could not flush file system";
    return StepResult::Failed;
}

StepResult purgeOne(Filesys& fs, Platform::File& file)
{
    const std::uint8_t zeros[4] = {};
    if (file.write(zeros, sizeof zeros) != sizeof zeros) {
        error() << "Could not write to hiberfil.sys";
        return StepResult::Failed;
    }
    return flushed(fs);
}

StepResult markCleanShutdown(Filesys& fs, Platform::File& file)
{
    if (file.size() < kCleanShutdownOffset + 1 || !file.seek(kCleanShutdownOffset)) {
        error() << "Could not seek bootstat.dat";
        return StepResult::Failed;
    }
    const std::uint8_t clean = 0x01;
    if (file.write(&clean, 1) != 1) {
        error() << "Could not write to bootstat.dat";
        return StepResult::Failed;
    }
    return flushed(fs);
}

// Ok only when both client-id values went and the ping id did not refuse to go.
StepResult clearUpdateValues(Platform::Hive::HiveFile& hive)
{
    const auto root = hive.root();
    const auto key = root ? root->find("/Microsoft/Windows/CurrentVersion/WindowsUpdate") : nullptr;
    if (!key)
        return StepResult::NothingFound;
    int removed = 0;
    for (const char* name : {"SusClientId", "SusClientIdValidation"})
        removed += removeUpdateValue(*key, name) == StepResult::Ok ? 1 : 0;
    removeUpdateValue(*key, "AccountDomainSid");
    const StepResult ping = removeUpdateValue(*key, "PingID");
    return removed == 2 && ping != StepResult::Failed ? StepResult::Ok : StepResult::NothingFound;
}

StepResult clearUpdateClientIdOf(const WindowsVolume& volume)
{
    const auto& fs = volume.files();
    const auto path = Platform::Windows::Utils::findSoftwareRegistryHive(*fs);
    if (!path)
        return StepResult::NothingFound;
    if (!volume.mayChange("the software hive " + *path))
        return StepResult::Failed;
    const auto hive = Platform::Windows::Utils::openMachineHive(fs, *path, true);
    if (!hive || !hive->writable()) {
        error() << "Could not open hive " << *path;
        return StepResult::Failed;
    }
    // A removal that failed only withholds "Ok".
    const StepResult cleared = clearUpdateValues(*hive);
    if (!hive->flush()) {
        error() << "Flush failed for hive";
        return StepResult::Failed;
    }
    return cleared;
}

} // namespace

StepResult purgeHiberfile(Ref<Keeper> keeper)
{
    // This step is what lets a hibernated volume be opened for writing.
    return foldWindowsVolumes(keeper, true, [](const WindowsVolume& volume) {
        return changeExistingFile(volume, kHiberfile, "hiberfil.sys", purgeOne);
    });
}

StepResult setCleanShutdown(Ref<Keeper> keeper)
{
    return foldWindowsVolumes(keeper, keeper && keeper->isEnabled(StepHiberfile), [](const WindowsVolume& volume) {
        return changeExistingFile(volume, kBootStatus, "bootstat.dat", markCleanShutdown);
    });
}

StepResult clearUpdateClientId(Ref<Keeper> keeper)
{
    return foldWindowsVolumes(keeper, keeper && keeper->isEnabled(StepHiberfile), clearUpdateClientIdOf);
}

StepResult removeUpdateValue(Platform::Hive::KeyNode& key, const std::string& name)
{
    const auto value = key.value(name);
    if (!value)
        return StepResult::NothingFound;
    if (!key.deleteValue(value)) {
        Platform::LogMessage(Channels::windows(), LogWarning) << "Could not remove SusClient" << name;
        return StepResult::Failed;
    }
    return StepResult::Ok;
}

} // namespace Libraries::KRO::PostProcessing::Windows
