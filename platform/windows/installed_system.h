#pragma once
// Which Windows a file system holds, read offline from its SOFTWARE hive.

#include "platform/fs/filesys.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Platform::Windows::Utils {

struct InstalledSystem {
    // ProductName, except that Windows 11 (build 22000 on) still calls itself "Windows 10 ...".
    std::string name;
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::uint32_t build = 0; // 0 when the hive names none
};

inline constexpr std::uint32_t kFirstWindows11Build = 22000;

// Nothing when fs has no SOFTWARE hive or it names no product.
std::optional<InstalledSystem> getInstalledSystem(const Ref<Filesys>& fs);

} // namespace Platform::Windows::Utils
