#include "tests/support/windows_tree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace TestSupport {

void unpackHive(const std::string& name, const std::string& path)
{
    const std::string fixture = std::string(SHARED_DIR) + "/fixtures/windows-hives/" + name + ".xz";
    const auto result = run({"sh", "-c", "xz -dc '" + fixture + "' > '" + path + "'"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
}

WindowsTree::WindowsTree(std::string root, const std::string& systemHive, bool withLogs, const std::string& windows,
                         const std::string& system32)
    : root_(std::move(root)), system32_(root_ + "/" + windows + "/" + system32), config_(system32_ + "/config")
{
    std::filesystem::create_directories(config_);
    std::filesystem::create_directories(system32_ + "/drivers");
    unpackHive(systemHive, config_ + "/SYSTEM");
    if (withLogs)
        for (const char* log : {".LOG1", ".LOG2"})
            unpackHive(systemHive + log, config_ + "/SYSTEM" + log);
}

void WindowsTree::addDriver(const std::string& file) const
{
    std::ofstream(system32_ + "/drivers/" + file) << "MZ";
}

void WindowsTree::writeFile(const std::string& relative, const std::vector<std::uint8_t>& bytes) const
{
    std::ofstream out(root_ + "/" + relative, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

Platform::Ref<Platform::Hive::HiveFile> WindowsTree::openSystemHive() const
{
    const auto fs = Platform::Filesys::create(config_, 0, Platform::Access::ReadWrite);
    return Platform::Hive::Utils::openHive(fs, "/SYSTEM", true, 0, 32);
}

} // namespace TestSupport
