#include "platform/windows/system_hives.h"

#include "platform/fs/path_lookup.h"

namespace Platform::Windows::Utils {

std::optional<std::string> findSystemRegistryHive(Filesys& fs)
{
    return findPathIgnoringCase(fs, {"Windows", "System32", "config", "SYSTEM"});
}

Ref<Hive::HiveFile> openMachineHive(const Ref<Filesys>& fs, const std::string& path, bool writable)
{
    constexpr std::uint32_t kCodepage = 0;
    constexpr std::uint32_t kFlags = 32;
    return Hive::Utils::openHive(fs, path, writable, kCodepage, kFlags);
}

std::optional<std::string> findSoftwareRegistryHive(Filesys& fs)
{
    return findPathIgnoringCase(fs, {"Windows", "System32", "config", "SOFTWARE"});
}

} // namespace Platform::Windows::Utils
