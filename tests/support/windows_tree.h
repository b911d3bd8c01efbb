#pragma once
// A Windows installation as the Windows steps find it, in a host folder: the real SYSTEM hive
// fixtures (with their logs where they have them), driver files, and the files of a first start.

#include "platform/hive/hive_file.h"
#include "tests/support/command.h"

#include <string>
#include <vector>

namespace TestSupport {

// Unpacks fixtures/windows-hives/<name>.xz to path.
void unpackHive(const std::string& name, const std::string& path);

// A SOFTWARE hive at path that names product, version ("6.1" style before Windows 10, else
// major.minor in the two DWORDs of Windows 10 on) and build; hivexsh builds it from a copy of the
// BCD-Template fixture emptied of its keys. extra: more hivexsh lines, run at the root.
void writeSoftwareHive(const std::string& path, const std::string& product, unsigned major, unsigned minor,
                       const std::string& build, const std::string& extra = "");

class WindowsTree {
public:
    // root/<windows>/<system32>/config/SYSTEM from the fixture systemHive (its .LOG1/.LOG2 too when
    // withLogs), in the letter case given.
    WindowsTree(std::string root, const std::string& systemHive, bool withLogs = false,
                const std::string& windows = "Windows", const std::string& system32 = "System32");

    const std::string& root() const { return root_; }
    std::string systemHive() const { return config_ + "/SYSTEM"; }
    // An empty file under system32/drivers.
    void addDriver(const std::string& file) const;
    void writeFile(const std::string& relative, const std::vector<std::uint8_t>& bytes) const;
    // The system hive opened writable through our engine, for setting up a case.
    Platform::Ref<Platform::Hive::HiveFile> openSystemHive() const;

private:
    std::string root_;
    std::string system32_;
    std::string config_;
};

} // namespace TestSupport
