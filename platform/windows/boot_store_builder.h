#pragma once
// A new UEFI boot configuration store, made from a copy of a Windows' BCD-Template: the boot
// manager on the EFI system partition, one boot entry per Windows (the newest is the default),
// a resume entry for the default, and the template's own objects removed.

#include "platform/core/byte_array.h"
#include "platform/hive/hive_file.h"
#include "platform/windows/installed_system.h"

#include <functional>
#include <string>
#include <vector>

namespace Platform::Windows {

struct InstalledWindows {
    Utils::InstalledSystem system;
    Ref<ByteArray> partition; // its GPT partition GUID, as stored
};

struct BootStoreLayout {
    Ref<ByteArray> diskId;       // the GPT disk GUID
    Ref<ByteArray> efiPartition; // the EFI system partition's GUID
    std::vector<InstalledWindows> systems;
};

// A new object name: a random GUID in braces, lower case, as the store names objects.
std::string randomObjectName();

// Fills store (a template copy) for layout, logging each failure; false at the first failure,
// with the store left as far as it was written. The caller flushes it. newObjectName draws the
// names of the new entries (randomObjectName when empty).
bool fillBootStore(Hive::HiveFile& store, const BootStoreLayout& layout,
                   const std::function<std::string()>& newObjectName = {});

} // namespace Platform::Windows
