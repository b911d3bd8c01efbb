#pragma once
// Where a Windows installation keeps its machine hives: Windows/System32/config, found in any
// letter case.

#include "platform/fs/filesys.h"
#include "platform/hive/hive_file.h"

#include <optional>
#include <string>

namespace Platform::Windows::Utils {

// The real path of Windows/System32/config/SYSTEM on fs, or nothing when fs holds no Windows.
std::optional<std::string> findSystemRegistryHive(Filesys& fs);
// The same for Windows/System32/config/SOFTWARE.
std::optional<std::string> findSoftwareRegistryHive(Filesys& fs);
// A machine hive at path, opened as the Windows steps open it (codepage 0, flags 32).
Ref<Hive::HiveFile> openMachineHive(const Ref<Filesys>& fs, const std::string& path, bool writable);

} // namespace Platform::Windows::Utils
