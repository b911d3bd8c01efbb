// postclone reg on real hives, on the host and inside NTFS and FAT partitions of an image; the
// results read back with hivexregedit and hivexget, the partitions checked by their own tools.

#include "tests/support/command.h"
#include "tests/support/hive_tools.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

using TestSupport::run;
using TestSupport::runTool;

const std::string kFixtures = std::string(SHARED_DIR) + "/fixtures/windows-hives/";

class RegCommand : public testing::Test {
protected:
    TestSupport::TempDir dir;

    std::string unpack(const std::string& name, const std::string& as = "")
    {
        const std::string path = dir.file(as.empty() ? name : as);
        EXPECT_EQ(run({"sh", "-c", "xz -dc '" + kFixtures + name + ".xz' > '" + path + "'"}).exitCode, 0);
        return path;
    }
    static TestSupport::CommandResult reg(std::vector<std::string> args)
    {
        args.insert(args.begin(), {POSTCLONE_BINARY, "reg"});
        return run(args);
    }
};

TEST_F(RegCommand, ExportsCleanHivesAsHivexregeditDoes)
{
    for (const char* name : {"SYSTEM", "BCD", "BCD-Template-Win10", "BCD-Template-Win11"}) {
        const std::string hive = unpack(name);
        const auto ours = reg({"export", hive});
        ASSERT_EQ(ours.exitCode, 0) << name << ours.err;
        EXPECT_TRUE(ours.out == runTool({"hivexregedit", "--export", hive, "\\"})) << name << ": the exports differ";
    }
    const std::string system = dir.file("SYSTEM");
    const auto acpi = reg({"export", system, "ControlSet001\\Control\\ACPI"});
    EXPECT_EQ(acpi.out, runTool({"hivexregedit", "--export", system, "\\ControlSet001\\Control\\ACPI"}));
    EXPECT_EQ(reg({"get", system, "Select", "Current"}).out, "1\n");
    EXPECT_EQ(reg({"export", system, "No\\Such\\Key"}).exitCode, 1);
    EXPECT_EQ(reg({"get", system, "Select", "NoSuchValue"}).exitCode, 1);
    EXPECT_EQ(reg({"set", system, "Select", "Current", "float", "1"}).exitCode, 2);
    EXPECT_EQ(reg({"frobnicate", system}).exitCode, 2);
    EXPECT_EQ(reg({"export", dir.file("missing.img"), "1", "/SYSTEM"}).exitCode, 1);
}

TEST_F(RegCommand, RecoverReplaysTheLogsOnceAndRefusesAHiveWithoutThem)
{
    const std::string hive = unpack("NTUSER.DAT");
    const auto alone = reg({"recover", hive});
    EXPECT_EQ(alone.exitCode, 1);
    EXPECT_NE(alone.err.find("the hive is dirty and no transaction log beside it continues it"), std::string::npos)
        << alone.err;
    unpack("NTUSER.DAT.LOG1");
    unpack("NTUSER.DAT.LOG2");
    const auto first = reg({"recover", hive});
    ASSERT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(first.out, "recovered from the transaction logs\n");
    EXPECT_EQ(reg({"recover", hive}).out, "clean: nothing to recover\n");
    EXPECT_NE(TestSupport::hivexExport(hive, "\\Software\\Microsoft\\Payment").find("[\\Software\\Microsoft\\Payment]"),
              std::string::npos)
        << "the key only the logs held is in the file";
}

// A hive inside a partition of an image, edited through the file system our facade opens.
TEST_F(RegCommand, SetsValuesOfHivesInsideNtfsAndFatPartitions)
{
    setenv("MTOOLS_SKIP_CHECK", "1", 1);
    const std::string hive = unpack("SYSTEM");
    for (const std::string family : {"ntfs", "fat32"}) {
        SCOPED_TRACE(family);
        const std::string image = dir.file(family + ".img");
        TestSupport::createImage(image, 80 << 20);
        std::ofstream(dir.file("layout")) << "label: dos\nstart=2048, type=" << (family == "ntfs" ? "7" : "c") << "\n";
        ASSERT_EQ(run({"sh", "-c", "sfdisk -q '" + image + "' < '" + dir.file("layout") + "'"}).exitCode, 0);
        const std::string part = dir.file("part");
        TestSupport::createImage(part, 70 << 20);
        if (family == "ntfs")
            runTool({"mkntfs", "-F", "-f", "-q", part});
        else
            runTool({"mkfs.fat", "-F", "32", part});
        runTool({"dd", "if=" + part, "of=" + image, "bs=1M", "seek=1", "conv=notrunc", "status=none"});
        for (const char* folder : {"/Windows", "/Windows/System32", "/Windows/System32/config"})
            ASSERT_EQ(run({POSTCLONE_BINARY, "fs", "mkdir", image, "1", folder}).exitCode, 0);
        ASSERT_EQ(run({POSTCLONE_BINARY, "fs", "put", image, "1", "/Windows/System32/config/SYSTEM", hive}).exitCode,
                  0);

        const std::string path = "/Windows/System32/config/SYSTEM";
        const auto set = reg({"set", image, "1", path, "ControlSet001\\Control\\ComputerName\\ComputerName",
                              "ComputerName", "sz", "COPY-01"});
        ASSERT_EQ(set.exitCode, 0) << set.err;
        ASSERT_EQ(reg({"set", image, "1", path, "Select", "Current", "dword", "2"}).exitCode, 0);
        EXPECT_EQ(reg({"get", image, "1", path, "Select", "Current"}).out, "2\n");

        runTool({"dd", "if=" + image, "of=" + part, "bs=1M", "skip=1", "count=70", "status=none"});
        const std::string copy = dir.file("copy");
        if (family == "ntfs") {
            EXPECT_EQ(run({"ntfsfix", "-n", part}).exitCode, 0);
            runTool({"sh", "-c", "ntfscat '" + part + "' " + path + " > '" + copy + "'"});
        } else {
            EXPECT_EQ(run({"fsck.fat", "-n", part}).exitCode, 0);
            runTool({"mcopy", "-o", "-i", part, "::" + path, copy});
        }
        EXPECT_EQ(runTool({"hivexget", copy, "\\ControlSet001\\Control\\ComputerName\\ComputerName", "ComputerName"}),
                  "COPY-01\n");
        EXPECT_EQ(runTool({"hivexget", copy, "\\Select", "Current"}), "2\n");
        const auto logs = reg({"export", image, "1", path, "Select"});
        EXPECT_EQ(logs.exitCode, 0);
        EXPECT_EQ(run({POSTCLONE_BINARY, "fs", "cat", image, "1", "/Windows/System32/config/SYSTEM.LOG1"}).exitCode, 0)
            << "the flush wrote its log beside the hive";
    }
}

} // namespace
