#pragma once
// The system hive of every target Windows: the control set Windows will boot with gets the
// storage drivers of the enabled groups started at boot (and, when asked, a new computer name).
// Each group's outcome lands in its own keeper step.

#include "platform/hive/hive_file.h"
#include "postprocessing/keeper.h"
#include "postprocessing/windows/storage_drivers.h"

namespace Libraries::KRO::PostProcessing::Windows {

using Platform::Hive::HiveFile;
using Platform::Hive::KeyNode;

// The pipeline step "Adjusting system hive": every target file system with a system hive.
StepResult adjustSystemHives(Ref<Keeper> keeper);
StepResult adjustCurrentControlSet(const Ref<Keeper>& keeper, u64 id, Platform::Filesys& fs, HiveFile& hive);
// Select\Current, or -1 when it cannot be read as a number.
std::int64_t getCurrentControlSet(HiveFile& hive);
// ControlSet001 for 1, ControlSet012 for 12, ControlSet1234 for 1234; null when missing.
Ref<KeyNode> getControlSetKey(HiveFile& hive, std::int64_t number);
StepResult adjustControlSetDrivers(const Ref<Keeper>& keeper, Platform::Filesys& fs, const Ref<KeyNode>& controlSet);
// Every entry is processed, also after one failed.
StepResult activateDrivers(KeyNode& services, Platform::Filesys& fs, std::span<const DriverEntry> entries);
StepResult activateDriver(KeyNode& services, Platform::Filesys& fs, const DriverEntry& entry);
// An existing key of that device id is left as it is.
StepResult addCriticalDevice(KeyNode& database, const CriticalDeviceEntry& entry);
// Whether Windows/System32/drivers/name exists, each name in any letter case.
bool driverFileExists(Platform::Filesys& fs, const std::string& name);

} // namespace Libraries::KRO::PostProcessing::Windows
