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

void writeSoftwareHive(const std::string& path, const std::string& product, unsigned major, unsigned minor,
                       const std::string& build, const std::string& extra)
{
    unpackHive("BCD-Template-Win10", path);
    const std::string version = major >= 10
                                    ? "CurrentMajorVersionNumber\ndword:" + std::to_string(major) +
                                          "\nCurrentMinorVersionNumber\ndword:" + std::to_string(minor)
                                    : "CurrentVersion\nstring:" + std::to_string(major) + "." + std::to_string(minor);
    const std::string script = "cd Objects\ndel\ncd \\\ncd Description\ndel\ncd \\\n"
                               "add Microsoft\ncd Microsoft\nadd Windows NT\ncd Windows NT\nadd CurrentVersion\n"
                               "cd CurrentVersion\nsetval " +
                               std::string(major >= 10 ? "4" : "3") + "\nProductName\nstring:" + product + "\n" +
                               version + "\nCurrentBuildNumber\nstring:" + build + "\ncd \\\n" + extra + "commit\n";
    const std::string scriptPath = path + ".hsh";
    std::ofstream(scriptPath) << script;
    const auto result =
        run({"sh", "-c", "chmod u+w '" + path + "' && hivexsh -w '" + path + "' < '" + scriptPath + "'"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    std::filesystem::remove(scriptPath);
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
