#include "postprocessing/windows/system_hive.h"

#include "platform/core/string_util.h"
#include "platform/fs/path_lookup.h"
#include "platform/windows/system_hives.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/windows/computer_name.h"
#include "postprocessing/windows/windows_volume.h"

namespace Libraries::KRO::PostProcessing::Windows {

namespace {

using Platform::LogMessage;

constexpr u32 kRegSz = 1;
constexpr u32 kRegDword = 4;

LogMessage error()
{
    return LogMessage(Channels::windows(), LogError);
}

LogMessage detail()
{
    return LogMessage(Channels::windows(), LogDetail);
}

// The sub-steps this step reports through: the driver groups and the computer name.
std::vector<s32> subSteps()
{
    std::vector<s32> steps{StepComputerName};
    for (const auto& group : storageDriverGroups())
        steps.push_back(group.step);
    return steps;
}

// With several Windows on the targets a sub-step's outcome folds over all of them.
void recordOutcome(Keeper& keeper, s32 step, StepResult outcome)
{
    const StepResult before = keeper.getResult(step);
    keeper.setResult(step, before == StepResult::NotAccessed ? outcome : foldResult(before, outcome));
}

// A hive that could not be edited fails every sub-step that was asked for.
void failEnabledSubSteps(Keeper& keeper)
{
    for (const s32 step : subSteps())
        if (keeper.isEnabled(step))
            recordOutcome(keeper, step, StepResult::Failed);
}

StepResult adjustSystemHiveOf(const Ref<Keeper>& keeper, u64 partition)
{
    const auto volume = WindowsVolume::open(keeper, partition, keeper->isEnabled(StepHiberfile));
    const auto& fs = volume.files();
    const auto path = fs ? Platform::Windows::Utils::findSystemRegistryHive(*fs) : std::nullopt;
    if (!path)
        return StepResult::NothingFound;
    if (!volume.mayChange("the system hive " + *path)) {
        failEnabledSubSteps(*keeper);
        return StepResult::Failed;
    }
    const auto hive = Platform::Windows::Utils::openMachineHive(fs, *path, true);
    if (!hive || !hive->writable()) {
        error() << "Could not open hive " << *path;
        failEnabledSubSteps(*keeper);
        return StepResult::Failed;
    }
    StepResult result = adjustCurrentControlSet(keeper, partition, *fs, *hive);
    if (!hive->flush()) {
        error() << "Flush failed for hive";
        failEnabledSubSteps(*keeper);
        result = StepResult::Failed;
    }
    return result;
}

StepResult setStartToBoot(KeyNode& service, const DriverEntry& entry)
{
    auto start = service.value("Start");
    if (!start) {
        detail() << "Adding 'Start' to service " << entry.service;
        start = service.createValue("Start", kRegDword);
    }
    if (!start) {
        error() << "Could not get 'Start' value for " << entry.service;
        return StepResult::Failed;
    }
    if (start->type() != kRegDword) {
        error() << "Invalid type for 'Start': " << start->type();
        return StepResult::Failed;
    }
    if (start->getNumber() == 0) {
        detail() << "Driver already active";
    } else if (!start->setNumber(0)) {
        error() << "Could not update 'Start' value for " << entry.service;
        return StepResult::Failed;
    }
    return StepResult::Ok;
}

StepResult addImagePath(KeyNode& service, const DriverEntry& entry)
{
    if (!entry.imagePath || !*entry.imagePath || service.value("ImagePath"))
        return StepResult::Ok; // an existing path is the installation's own
    detail() << "Setting driver path to " << entry.imagePath;
    const auto path = service.createValue("ImagePath", kRegSz);
    if (!path) {
        error() << "Could not create image path for " << entry.service;
        return StepResult::Failed;
    }
    if (!path->setString(entry.imagePath)) {
        error() << "Could not set 'ImagePath' for " << entry.service;
        return StepResult::Failed;
    }
    return StepResult::Ok;
}

// Windows 8 on keeps a driver off through StartOverride\0 whatever Start says.
StepResult clearStartOverride(KeyNode& service, const DriverEntry& entry)
{
    const auto override = service.subkey("StartOverride");
    if (!override)
        return StepResult::Ok;
    detail() << "Adjusting 'StartOverride'";
    const auto first = override->value("0");
    if (!first) {
        detail() << "Startoverride but no val '0' for " << entry.service;
        return StepResult::Ok;
    }
    if (first->getNumber() != 0 && !first->setNumber(0)) {
        error() << "Could not set startoverride for " << entry.service;
        return StepResult::Failed;
    }
    return StepResult::Ok;
}

} // namespace

StepResult adjustSystemHives(Ref<Keeper> keeper)
{
    if (keeperMissing(keeper, Channels::windows()))
        return StepResult::Failed;
    // Enabled sub-steps fold over every Windows found from here on; switched-off groups read
    // "Not activated" only once a hive was looked at.
    for (const s32 step : subSteps())
        if (keeper->isEnabled(step))
            keeper->setResult(step, StepResult::NotAccessed);
    StepResult result = StepResult::NothingFound;
    for (const u64 partition : entriesOf(*keeper, KindPartition))
        result = foldResult(result, adjustSystemHiveOf(keeper, partition));
    return result;
}

StepResult adjustCurrentControlSet(const Ref<Keeper>& keeper, u64 id, Platform::Filesys& fs, HiveFile& hive)
{
    const std::int64_t current = getCurrentControlSet(hive);
    if (current == -1) {
        error() << "Could not determine current control set";
        failEnabledSubSteps(*keeper);
        return StepResult::Failed;
    }
    const auto controlSet = getControlSetKey(hive, current);
    if (!controlSet) {
        error() << "Libraries::KRO::PostProcessing::adjustCurrentControlSetCould not get controlset key for "
                << current;
        failEnabledSubSteps(*keeper);
        return StepResult::Failed;
    }
    const StepResult drivers = adjustControlSetDrivers(keeper, fs, controlSet);
    StepResult result = drivers == StepResult::Failed ? StepResult::Failed
                        : drivers == StepResult::Ok   ? StepResult::Ok
                                                      : StepResult::NothingFound;
    if (keeper->isEnabled(StepComputerName)) {
        const StepResult name = adjustControlSetComputerName(keeper, id, fs, controlSet);
        result = foldResult(result, name);
        recordOutcome(*keeper, StepComputerName, name);
    }
    return result;
}

std::int64_t getCurrentControlSet(HiveFile& hive)
{
    const auto root = hive.root();
    if (!root) {
        error() << "Libraries::KRO::PostProcessing::getCurrentControlSet: Could not get root node";
        return -1;
    }
    const auto select = root->subkey("Select");
    if (!select) {
        error() << "Libraries::KRO::PostProcessing::getCurrentControlSet: Could not get Select key for system hive";
        return -1;
    }
    const auto current = select->value("Current");
    if (!current) {
        error() << "Libraries::KRO::PostProcessing::getCurrentControlSet: Could not get Current value for "
                   "controlset selection";
        return -1;
    }
    const std::int64_t number = current->getNumber();
    if (number == -1)
        error() << "Libraries::KRO::PostProcessing::getCurrentControlSet: current control set has unsupported type: "
                << current->type();
    return number;
}

Ref<KeyNode> getControlSetKey(HiveFile& hive, std::int64_t number)
{
    const auto root = hive.root();
    if (!root) {
        error() << "Libraries::KRO::PostProcessing::getControlSetKeyCould not get root node";
        return {};
    }
    const std::string name = "ControlSet" + Platform::StrConv::str(u64(number), 10, 3);
    auto key = root->subkey(name);
    if (!key)
        error() << "Libraries::KRO::PostProcessing::getControlSetKeyCould not get controlset key " << name;
    return key;
}

StepResult adjustControlSetDrivers(const Ref<Keeper>& keeper, Platform::Filesys& fs, const Ref<KeyNode>& controlSet)
{
    if (!controlSet) {
        error() << "Libraries::KRO::PostProcessing::adjustControlSetDrivers, No control set key";
        return StepResult::Failed;
    }
    const auto services = controlSet->subkey("Services");
    if (!services) {
        error()
            << "Libraries::KRO::PostProcessing::adjustControlSetDrivers: Could not get Services set for control set "
            << controlSet->name();
        for (const auto& group : storageDriverGroups())
            if (keeper->isEnabled(group.step))
                recordOutcome(*keeper, group.step, StepResult::Failed);
        return StepResult::Failed;
    }
    const auto control = controlSet->subkey("Control");
    const auto database = control ? control->subkey("CriticalDeviceDatabase") : nullptr;
    for (const auto& group : storageDriverGroups()) {
        if (!keeper->isEnabled(group.step)) {
            keeper->setResult(group.step, StepResult::NotActivated);
            continue;
        }
        StepResult outcome = activateDrivers(*services, fs, group.entries);
        if (group.step == StepIde && database)
            outcome = foldResult(outcome, addCriticalDevice(*database, ideCriticalDevice()));
        recordOutcome(*keeper, group.step, outcome);
    }
    return StepResult::Ok;
}

StepResult activateDrivers(KeyNode& services, Platform::Filesys& fs, std::span<const DriverEntry> entries)
{
    StepResult result = StepResult::NothingFound;
    for (const auto& entry : entries)
        result = foldResult(result, activateDriver(services, fs, entry));
    return result;
}

StepResult activateDriver(KeyNode& services, Platform::Filesys& fs, const DriverEntry& entry)
{
    if (!driverFileExists(fs, entry.file)) {
        LogMessage(Channels::windows(), LogNotice) << "Could not find driver " << entry.file;
        return StepResult::NothingFound;
    }
    const auto service = services.subkey(entry.service);
    if (!service) {
        LogMessage(Channels::windows(), LogNotice) << "Could not find service " << entry.service;
        return StepResult::Failed;
    }
    detail() << "Activating " << entry.file;
    for (const auto& change : {setStartToBoot, addImagePath, clearStartOverride})
        if (change(*service, entry) == StepResult::Failed)
            return StepResult::Failed;
    return StepResult::Ok;
}

StepResult addCriticalDevice(KeyNode& database, const CriticalDeviceEntry& entry)
{
    if (database.subkey(entry.deviceId))
        return StepResult::Ok;
    const auto device = database.createKey(entry.deviceId);
    if (!device) {
        error() << "Could not create CriticalDeviceDatabase key " << entry.deviceId;
        return StepResult::Failed;
    }
    const auto classGuid = device->createValue("ClassGuid", kRegSz);
    if (!classGuid) {
        error() << "Could not create ClassGuid value for " << entry.deviceId;
        return StepResult::Failed;
    }
    if (!classGuid->setString(entry.classGuid)) {
        error() << "Could not set ClassGuid value for " << entry.deviceId;
        return StepResult::Failed;
    }
    const auto service = device->createValue("Service", kRegSz);
    if (!service) {
        error() << "Could not create Service value for " << entry.deviceId;
        return StepResult::Failed;
    }
    if (!service->setString(entry.service)) {
        error() << "Could not set service value for " << entry.deviceId;
        return StepResult::Failed;
    }
    return StepResult::Ok;
}

bool driverFileExists(Platform::Filesys& fs, const std::string& name)
{
    return Platform::findPathIgnoringCase(fs, {"WINDOWS", "SYSTEM32", "DRIVERS", name}).has_value();
}

} // namespace Libraries::KRO::PostProcessing::Windows
