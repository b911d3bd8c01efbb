#pragma once
// The storage drivers a copied Windows may need at boot on its new controller, by group, each
// group switched by its own keeper step. The spellings and the two styles of image path are as
// Windows' own service entries write them.

#include "postprocessing/types.h"

#include <span>

namespace Libraries::KRO::PostProcessing::Windows {

struct DriverEntry {
    const char* service;   // the key name under Services
    const char* file;      // looked for in Windows/System32/drivers
    const char* imagePath; // written as ImagePath when the service has none
};

struct CriticalDeviceEntry {
    const char* deviceId; // the key name under CriticalDeviceDatabase
    const char* classGuid;
    const char* service;
};

struct DriverGroup {
    s32 step;
    std::span<const DriverEntry> entries;
};

// In the order they are processed: IDE, AHCI, NVMe, USB, USB3, Atapi, RAIDs.
std::span<const DriverGroup> storageDriverGroups();
// Lets an IDE controller Windows has never seen bind to pciide (Windows 7 and before).
const CriticalDeviceEntry& ideCriticalDevice();

} // namespace Libraries::KRO::PostProcessing::Windows
