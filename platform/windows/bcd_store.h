#pragma once
// Where boot configuration stores lie on a file system, and the names Windows' own tools give
// the store's well-known objects.

#include "platform/fs/filesys.h"

#include <string>
#include <vector>

namespace Platform::Windows {

// The object GUIDs the store code reaches by name, as stored (in braces, lower case).
inline constexpr const char* kBootManagerObject = "{9dea862c-5cdd-4e70-acc1-f32b344d4795}";
inline constexpr const char* kEfiOsTemplateObject = "{b012b84d-c47c-4ed5-b722-c0c42163e569}";

// The real paths of EFI/Microsoft/Boot/BCD (a UEFI system) and Boot/BCD (a BIOS system) on fs,
// found in any letter case.
std::vector<std::string> findBootStores(Filesys& fs);

// "{bootmgr}" for the boot manager's GUID and so on; empty for any other object. Any letter case.
std::string wellKnownObjectName(const std::string& guid);
// "boot manager", "OS loader", ... for an object's Type; empty when unknown.
std::string objectTypeName(std::uint32_t type);

} // namespace Platform::Windows
