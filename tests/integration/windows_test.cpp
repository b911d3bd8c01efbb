// Windows on NTFS partitions that mkntfs made, run through postclone: the drivers, name and
// first-start files of two Windows in one image (one of them a dirty hive with its logs), checked
// with hivexget, ntfscat and ntfsfix; a hibernated and an encrypted volume left byte for byte;
// postclone windows info before and after.

#include "tests/support/command.h"
#include "tests/support/windows_tree.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <set>

namespace {

using TestSupport::run;
using TestSupport::runTool;

constexpr std::uint64_t kMiB = 1 << 20;
constexpr std::uint64_t kPartitionMiB = 60;

class WindowsImage : public ::testing::Test {
protected:
    // An MBR image of count NTFS partitions of kPartitionMiB each, from 1 MiB on.
    std::string makeImage(const std::string& name, int count)
    {
        const std::string image = dir.file(name);
        TestSupport::createImage(image, (1 + count * kPartitionMiB + 1) * kMiB);
        std::string layout = "label: dos\n";
        for (int i = 0; i < count; ++i)
            layout += "size=" + std::to_string(kPartitionMiB) + "MiB, type=7\n";
        std::ofstream(dir.file("layout")) << layout;
        runTool({"sh", "-c", "sfdisk -q '" + image + "' < '" + dir.file("layout") + "'"});
        const std::string part = dir.file("part");
        for (int i = 0; i < count; ++i) {
            TestSupport::createImage(part, kPartitionMiB * kMiB);
            runTool({"mkntfs", "-F", "-f", "-q", part});
            runTool({"dd", "if=" + part, "of=" + image, "bs=1M", "seek=" + std::to_string(1 + i * kPartitionMiB),
                     "conv=notrunc", "status=none"});
        }
        return image;
    }
    void put(const std::string& image, int partition, const std::string& path, const std::string& local)
    {
        ASSERT_EQ(run({POSTCLONE_BINARY, "fs", "put", image, std::to_string(partition), path, local}).exitCode, 0)
            << path;
    }
    void putBytes(const std::string& image, int partition, const std::string& path, const std::string& bytes)
    {
        std::ofstream(dir.file("bytes"), std::ios::binary) << bytes;
        put(image, partition, path, dir.file("bytes"));
    }
    // A Windows from the fixture hive (its logs too when withLogs), a SOFTWARE hive hivexsh made,
    // the driver files, a zeroed hiberfil.sys and a bootstat.dat.
    void installWindows(const std::string& image, int partition, const std::string& hive, bool withLogs,
                        const std::vector<std::string>& drivers)
    {
        for (const char* folder :
             {"/Windows", "/Windows/System32", "/Windows/System32/config", "/Windows/System32/drivers"})
            ASSERT_EQ(run({POSTCLONE_BINARY, "fs", "mkdir", image, std::to_string(partition), folder}).exitCode, 0);
        const std::string local = dir.file(hive);
        TestSupport::unpackHive(hive, local);
        put(image, partition, "/Windows/System32/config/SYSTEM", local);
        if (withLogs)
            for (const std::string log : {".LOG1", ".LOG2"}) {
                TestSupport::unpackHive(hive + log, local + log);
                put(image, partition, "/Windows/System32/config/SYSTEM" + log, local + log);
            }
        put(image, partition, "/Windows/System32/config/SOFTWARE", softwareHive());
        for (const auto& driver : drivers)
            putBytes(image, partition, "/Windows/System32/drivers/" + driver, "MZ");
        putBytes(image, partition, "/hiberfil.sys", std::string(256 << 10, '\0'));
        putBytes(image, partition, "/Windows/bootstat.dat", std::string(64 << 10, '\0'));
    }
    std::string softwareHive()
    {
        const std::string path = dir.file("SOFTWARE");
        TestSupport::unpackHive("BCD-Template-Win10", path);
        std::ofstream(dir.file("software.hsh"))
            << "cd Objects\ndel\ncd \\\ncd Description\ndel\ncd \\\n"
               "add Microsoft\ncd Microsoft\nadd Windows NT\ncd Windows NT\nadd CurrentVersion\ncd CurrentVersion\n"
               "setval 4\nProductName\nstring:Windows 10 Pro\nCurrentMajorVersionNumber\ndword:0x0000000a\n"
               "CurrentMinorVersionNumber\ndword:0x00000000\nCurrentBuildNumber\nstring:22631\n"
               "cd \\Microsoft\nadd Windows\ncd Windows\nadd CurrentVersion\ncd CurrentVersion\n"
               "add WindowsUpdate\ncd WindowsUpdate\nsetval "
               "4\nSusClientId\nstring:5b1e4b6a-0c33-4f55-9f4e-1c2d3e4f5a6b\n"
               "SusClientIdValidation\nhex:3:06,02,00,01\nPingID\nstring:0d5e7b0c-1111-2222-3333-444455556666\n"
               "AccountDomainSid\nstring:S-1-5-21-1-2-3\ncommit\n";
        runTool(
            {"sh", "-c", "chmod u+w '" + path + "' && hivexsh -w '" + path + "' < '" + dir.file("software.hsh") + "'"});
        return path;
    }
    // Partition n of the image as a file of its own, for the tools that read a bare volume.
    std::string partitionOf(const std::string& image, int partition)
    {
        const std::string part = dir.file(std::string("p").append(std::to_string(partition)));
        runTool({"dd", "if=" + image, "of=" + part, "bs=1M",
                 "skip=" + std::to_string(1 + (partition - 1) * kPartitionMiB),
                 "count=" + std::to_string(kPartitionMiB), "status=none"});
        return part;
    }
    std::string fileOf(const std::string& volume, const std::string& path)
    {
        const std::string local = dir.file("extracted");
        runTool({"sh", "-c", "ntfscat '" + volume + "' '" + path + "' > '" + local + "'"});
        return local;
    }
    nlohmann::json info(const std::string& image)
    {
        const auto result = run({POSTCLONE_BINARY, "windows", "info", "--json", image});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return nlohmann::json::parse(result.out)["targets"][0]["windows"];
    }

    TestSupport::TempDir dir;
};

TEST_F(WindowsImage, TwoWindowsGetTheirDriversNameAndFirstStartFilesAndTheVolumesStayClean)
{
    const std::string image = makeImage("disk.img", 2);
    // Windows 7 has msahci, Windows 10 storahci: each copy holds the files of its own services.
    installWindows(image, 1, "SYSTEM", false, {"msahci.sys", "pciide.sys", "intelide.sys"});
    installWindows(image, 2, "SYSTEM_B", true, {"storahci.sys", "pciide.sys", "intelide.sys"});
    const auto before = info(image);
    ASSERT_EQ(before.size(), 2u);
    EXPECT_EQ(before[0]["drivers"]["ahci"]["msahci"], 3);
    EXPECT_EQ(before[0]["update_client_id"], true);
    EXPECT_EQ(before[0]["product"]["name"], "Windows 11 Pro") << "build 22631 names itself Windows 10";
    EXPECT_EQ(before[0]["mounted_devices"][0]["disk_signature"], "5CBEA03E");

    std::vector<std::string> args{POSTCLONE_BINARY, "--enable",        "ahci",    "--enable", "ide",       "--enable",
                                  "computer-name",  "--computer-name", "NEWPC",   "--enable", "hiberfile", "--enable",
                                  "clean-shutdown", "--enable",        "wsus-id", "--json",   image};
    // Looked at first: the hives and the boot status of both Windows would change (their
    // hibernation files already hold nothing to resume), the image does not.
    const std::string untouched = runTool({"md5sum", image});
    auto dryRun = args;
    dryRun.insert(dryRun.begin() + 1, "--dry-run");
    const auto looked = run(dryRun);
    ASSERT_EQ(looked.exitCode, 0) << looked.err;
    EXPECT_EQ(runTool({"md5sum", image}), untouched);
    std::set<std::string> wouldChange;
    const auto lookedReport = nlohmann::json::parse(looked.out);
    for (const auto& step : lookedReport["steps"])
        for (const auto& file : step["would_change"]["files"])
            wouldChange.insert(file["volume"].get<std::string>() + ":" + file["path"].get<std::string>());
    for (const std::string partition : {"1", "2"})
        for (const std::string path :
             {"/Windows/System32/config/SYSTEM", "/Windows/System32/config/SOFTWARE", "/Windows/bootstat.dat"})
            EXPECT_EQ(wouldChange.count(image + " partition " + partition + ":" + path), 1u) << partition << path;

    const auto result = run(args);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto report = nlohmann::json::parse(result.out)["steps"];
    for (const int slot : {13, 14, 15, 16, 17, 18})
        EXPECT_EQ(report[slot]["word"], "Ok") << slot << result.err;
    EXPECT_EQ(report[19]["word"], "Not activated");

    for (int partition : {1, 2}) {
        SCOPED_TRACE(partition);
        const std::string volume = partitionOf(image, partition);
        EXPECT_EQ(run({"ntfsfix", "-n", volume}).exitCode, 0);
        const std::string system = fileOf(volume, "/Windows/System32/config/SYSTEM");
        const std::string set = "\\ControlSet001";
        EXPECT_EQ(runTool({"hivexget", system, set + "\\Control\\ComputerName\\ComputerName", "ComputerName"}),
                  "NEWPC\n");
        EXPECT_EQ(runTool({"hivexget", system, set + "\\Services\\Tcpip\\Parameters", "NV Hostname"}), "NEWPC\n");
        EXPECT_EQ(runTool({"hivexget", system, set + "\\Services\\pciide", "Start"}), "0\n");
        const std::string software = fileOf(volume, "/Windows/System32/config/SOFTWARE");
        EXPECT_EQ(
            run({"hivexget", software, "\\Microsoft\\Windows\\CurrentVersion\\WindowsUpdate", "SusClientId"}).exitCode,
            1);
        const std::string hiberfile = fileOf(volume, "/hiberfil.sys");
        EXPECT_EQ(std::filesystem::file_size(hiberfile), 256u << 10);
        EXPECT_EQ(TestSupport::readAt(fileOf(volume, "/Windows/bootstat.dat"), 11, 1), std::vector<std::uint8_t>{1});
    }
    const std::string first = fileOf(partitionOf(image, 1), "/Windows/System32/config/SYSTEM");
    EXPECT_EQ(runTool({"hivexget", first, "\\ControlSet001\\Services\\msahci", "Start"}), "0\n");
    // SYSTEM_B: what only its logs held is there beside the edits.
    const std::string second = fileOf(partitionOf(image, 2), "/Windows/System32/config/SYSTEM");
    EXPECT_EQ(runTool({"hivexget", second, "\\ControlSet001\\Services\\storahci", "Start"}), "0\n");
    EXPECT_EQ(runTool({"hivexget", second, "\\ControlSet001\\Services\\storahci\\StartOverride", "0"}), "0\n");

    const auto after = info(image);
    EXPECT_EQ(after[0]["computer_name"], "NEWPC");
    EXPECT_EQ(after[1]["computer_name"], "NEWPC");
    EXPECT_EQ(after[0]["drivers"]["ahci"]["msahci"], 0);
    EXPECT_EQ(after[0]["drivers"]["ahci"]["storahci"], nullptr) << "no such service on Windows 7";
    EXPECT_EQ(after[0]["boot_status"], 1);
    EXPECT_EQ(after[0]["update_client_id"], false);
    EXPECT_EQ(after[0]["ntfs_log_clean"], true);
    EXPECT_EQ(after[0]["mounted_devices"], before[0]["mounted_devices"]);
}

TEST_F(WindowsImage, AHibernatedAndAnEncryptedVolumeAreLeftByteForByteUnlessTheRunPurges)
{
    const std::string image = makeImage("disk.img", 2);
    installWindows(image, 1, "SYSTEM", false, {"msahci.sys"});
    putBytes(image, 1, "/hiberfil.sys", "hibr" + std::string((256 << 10) - 4, '\x5a'));
    // BitLocker's boot sector names itself "-FVE-FS-" where NTFS says "NTFS    ".
    std::ofstream(image, std::ios::binary | std::ios::in | std::ios::out).seekp((1 + kPartitionMiB) * kMiB + 3)
        << "-FVE-FS-";
    const auto original = runTool({"md5sum", image});

    const auto refused = run({POSTCLONE_BINARY, "--enable", "ahci", "--enable", "computer-name", "--computer-name",
                              "NEWPC", "--enable", "clean-shutdown", "--enable", "wsus-id", image});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(runTool({"md5sum", image}), original);
    EXPECT_NE(refused.err.find("it is hibernated (hiberfil.sys starts with \"hibr\")"), std::string::npos)
        << refused.err;
    EXPECT_NE(refused.err.find("is encrypted with BitLocker"), std::string::npos) << refused.err;
    const auto shown = info(image);
    ASSERT_EQ(shown.size(), 2u);
    EXPECT_EQ(shown[0]["hibernation"], "hibr");
    EXPECT_EQ(shown[1]["bitlocker"], true);

    const auto purged = run({POSTCLONE_BINARY, "--enable", "ahci", "--enable", "hiberfile", image});
    EXPECT_EQ(purged.exitCode, 0) << purged.err;
    const std::string volume = partitionOf(image, 1);
    EXPECT_EQ(run({"ntfsfix", "-n", volume}).exitCode, 0);
    EXPECT_EQ(TestSupport::readAt(fileOf(volume, "/hiberfil.sys"), 0, 5),
              (std::vector<std::uint8_t>{0, 0, 0, 0, 0x5a}));
    EXPECT_EQ(runTool({"hivexget", fileOf(volume, "/Windows/System32/config/SYSTEM"),
                       "\\ControlSet001\\Services\\msahci", "Start"}),
              "0\n");
    EXPECT_EQ(TestSupport::readAt(image, (1 + kPartitionMiB) * kMiB + 3, 8),
              std::vector<std::uint8_t>({'-', 'F', 'V', 'E', '-', 'F', 'S', '-'}));
}

} // namespace
