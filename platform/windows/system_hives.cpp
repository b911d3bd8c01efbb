#include "platform/windows/system_hives.h"

#include "platform/fs/path_lookup.h"

namespace Platform::Windows::Utils {

std::optional<std::string> findSystemRegistryHive(Filesys& fs)
{
    return findPathIgnoringCase(fs, {"Windows", "System32", "config", "SYSTEM"});
}

std::optional<std::string> findSoftwareRegistryHive(Filesys& fs)
{
    return findPathIgnoringCase(fs, {"Windows", "System32", "config", "SOFTWARE"});
}

} // namespace Platform::Windows::Utils
