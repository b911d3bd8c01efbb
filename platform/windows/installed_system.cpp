#include "platform/windows/installed_system.h"

#include "platform/core/string_util.h"
#include "platform/hive/hive_file.h"
#include "platform/windows/system_hives.h"

namespace Platform::Windows::Utils {

namespace {

using Hive::KeyNode;

constexpr std::size_t kMaxText = 256;

std::optional<std::string> text(KeyNode& key, const std::string& name)
{
    const auto value = key.value(name);
    return value ? value->getString(kMaxText) : std::nullopt;
}

std::optional<std::uint32_t> number(KeyNode& key, const std::string& name)
{
    const auto value = key.value(name);
    const std::int64_t read = value ? value->getNumber() : -1;
    return read >= 0 ? std::optional<std::uint32_t>(std::uint32_t(read)) : std::nullopt;
}

// Windows 10 on keeps its version in two numbers; before, "6.1" and the like is all there is.
void readVersion(KeyNode& key, InstalledSystem& system)
{
    const auto major = number(key, "CurrentMajorVersionNumber");
    const auto minor = number(key, "CurrentMinorVersionNumber");
    if (major && minor) {
        system.major = *major;
        system.minor = *minor;
    } else if (const auto version = text(key, "CurrentVersion")) {
        const auto parts = StringUtil::split(*version, ".");
        if (parts.size() == 2) {
            StrConv::num(parts[0], system.major);
            StrConv::num(parts[1], system.minor);
        }
    }
    for (const char* name : {"CurrentBuildNumber", "CurrentBuild"})
        if (const auto build = text(key, name); build && StrConv::num(*build, system.build))
            break;
}

} // namespace

std::optional<InstalledSystem> getInstalledSystem(const Ref<Filesys>& fs)
{
    const auto path = fs ? findSoftwareRegistryHive(*fs) : std::nullopt;
    const auto hive = path ? openMachineHive(fs, *path, false) : nullptr;
    const auto root = hive ? hive->root() : nullptr;
    const auto key = root ? root->find("Microsoft/Windows NT/CurrentVersion") : nullptr;
    const auto product = key ? text(*key, "ProductName") : std::nullopt;
    if (!product)
        return std::nullopt;
    InstalledSystem system;
    system.name = *product;
    readVersion(*key, system);
    if (system.build >= kFirstWindows11Build && StringUtil::startsWith(system.name, "Windows 10"))
        system.name = "Windows 11" + system.name.substr(10);
    return system;
}

} // namespace Platform::Windows::Utils
