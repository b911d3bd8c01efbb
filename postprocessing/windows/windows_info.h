#pragma once
// What a Windows on a file system is and how it is set up, read without changing a byte: what an
// administrator compares before and after a run.

#include "platform/fs/filesys.h"
#include "platform/windows/installed_system.h"
#include "platform/windows/mounted_devices.h"
#include "platform/windows/volume_state.h"
#include "postprocessing/types.h"

#include <optional>
#include <string>
#include <vector>

namespace Libraries::KRO::PostProcessing::Windows {

struct DriverStart {
    std::string service;
    std::optional<std::int64_t> start; // nothing when the service or its Start value is missing
};

struct DriverGroupStarts {
    s32 step; // the keeper step that activates the group
    std::vector<DriverStart> drivers;
};

struct DriveRecord {
    std::string name; // "\DosDevices\C:" or "\??\Volume{...}"
    Platform::Windows::MountedDevice device;
};

struct WindowsInfo {
    Platform::Windows::VolumeState state;
    std::optional<Platform::Windows::Utils::InstalledSystem> system;
    std::string systemHive;
    std::optional<std::int64_t> controlSet;
    std::string computerName;
    std::string hostName; // Tcpip\Parameters "NV Hostname"
    std::vector<DriverGroupStarts> drivers;
    std::optional<std::uint64_t> hiberfileSize;
    std::optional<std::uint8_t> bootStatus; // bootstat.dat byte 11; 1 is a clean shutdown
    bool updateClientId = false;            // WindowsUpdate\SusClientId is there
    std::vector<DriveRecord> mountedDevices;
};

// The state of the volume alone when it is encrypted; nothing when fs holds no system hive.
// storage: the volume under fs, when there is one.
std::optional<WindowsInfo> describeWindows(const Ref<Platform::Filesys>& fs, const Ref<Interfaces::Storage>& storage);

} // namespace Libraries::KRO::PostProcessing::Windows
