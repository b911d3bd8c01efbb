// The storage drivers and the computer name of the real SYSTEM fixtures, edited in host folders
// where Windows' names come in other letter cases; every edit is read back with hivexget.

#include "postprocessing/windows/system_hive.h"

#include "platform/log/log.h"
#include "postprocessing/windows/computer_name.h"
#include "tests/support/command.h"
#include "tests/support/keeper_builder.h"
#include "tests/support/windows_tree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace Libraries::KRO::PostProcessing::Windows {
namespace {

using TestSupport::runTool;
using TestSupport::WindowsTree;

std::string hivexget(const std::string& hive, const std::string& key, const std::string& value)
{
    const auto result = TestSupport::run({"hivexget", hive, key, value});
    return result.exitCode == 0 ? result.out.substr(0, result.out.find('\n')) : "(missing)";
}

std::vector<char> bytesOf(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class SystemHiveStep : public ::testing::Test {
protected:
    Ref<Keeper> keeperFor(const std::vector<std::string>& roots, const std::vector<s32>& enabled,
                          const std::string& computerName = "")
    {
        return TestSupport::keeperForFolders(roots, enabled, computerName);
    }
    std::string folder(const std::string& name)
    {
        std::filesystem::create_directories(dir.file(name));
        return dir.file(name);
    }

    TestSupport::TempDir dir;
    Platform::ScopedLogCapture log;
};

TEST_F(SystemHiveStep, StartsTheDriversWhoseFilesExistInTheControlSetWindowsBootsWith)
{
    // Windows' own letter case is not the only one a copy may have.
    const WindowsTree windows(folder("c"), "SYSTEM", false, "WINDOWS", "system32");
    {
        const auto hive = windows.openSystemHive();
        ASSERT_TRUE(hive->root()->find("Select")->value("Current")->setNumber(2));
        const auto pciide = hive->root()->find("ControlSet002/Services/pciide");
        ASSERT_TRUE(pciide->deleteValue(pciide->value("ImagePath")));
        ASSERT_TRUE(hive->flush());
    }
    windows.addDriver("MSAHCI.SYS");
    windows.addDriver("pciide.sys");
    const auto keeper = keeperFor({windows.root()}, {StepAhci, StepIde});

    EXPECT_EQ(adjustSystemHives(keeper), StepResult::Ok);

    const std::string hive = windows.systemHive();
    EXPECT_EQ(hivexget(hive, "\\ControlSet002\\Services\\msahci", "Start"), "0");
    EXPECT_EQ(hivexget(hive, "\\ControlSet001\\Services\\msahci", "Start"), "3") << "not the current set";
    EXPECT_EQ(hivexget(hive, "\\ControlSet002\\Services\\pciide", "Start"), "0");
    EXPECT_EQ(hivexget(hive, "\\ControlSet002\\Services\\pciide", "ImagePath"), "system32\\drivers\\pciide.sys");
    EXPECT_EQ(hivexget(hive, "\\ControlSet002\\Services\\msahci", "ImagePath"),
              "\\SystemRoot\\system32\\drivers\\msahci.sys")
        << "an image path of its own stays";
    EXPECT_EQ(keeper->getResult(StepAhci), StepResult::Ok);
    EXPECT_EQ(keeper->getResult(StepIde), StepResult::Ok);
    EXPECT_EQ(keeper->getResult(StepNvme), StepResult::NotActivated);
    EXPECT_EQ(keeper->getResult(StepComputerName), StepResult::NotAccessed) << "a switched-off name is not recorded";
    EXPECT_TRUE(log.sink().contains("PP Win", 2, "Could not find driver storahci.sys"));
    EXPECT_TRUE(log.sink().contains("PP Win", 1, "Setting driver path to system32\\drivers\\pciide.sys"));
}

TEST_F(SystemHiveStep, ATwoDigitControlSetNumberIsPaddedToThree)
{
    const WindowsTree windows(folder("c"), "SYSTEM");
    {
        const auto hive = windows.openSystemHive();
        const auto root = hive->root();
        ASSERT_TRUE(root->subkey("ControlSet002")->rename("ControlSet010"));
        ASSERT_TRUE(root->find("Select")->value("Current")->setNumber(10));
        ASSERT_TRUE(hive->flush());
    }
    windows.addDriver("nvstor.sys");
    const auto keeper = keeperFor({windows.root()}, {StepRaid});
    EXPECT_EQ(adjustSystemHives(keeper), StepResult::Ok);
    EXPECT_EQ(hivexget(windows.systemHive(), "\\ControlSet010\\Services\\nvstor", "Start"), "0");
    EXPECT_EQ(hivexget(windows.systemHive(), "\\ControlSet001\\Services\\nvstor", "Start"), "3");

    EXPECT_EQ(getControlSetKey(*windows.openSystemHive(), 1234), nullptr);
    EXPECT_TRUE(log.sink().contains(
        "PP Win", 4, "Libraries::KRO::PostProcessing::getControlSetKeyCould not get controlset key ControlSet1234"));
}

TEST_F(SystemHiveStep, AStartOfTheWrongTypeFailsItsGroupWhileTheOtherEntriesAreStillDone)
{
    const WindowsTree windows(folder("c"), "SYSTEM");
    {
        const auto hive = windows.openSystemHive();
        const auto services = hive->root()->find("ControlSet001/Services");
        ASSERT_TRUE(services->subkey("pciide")->createValue("Start", 1)->setString("3"));
        ASSERT_TRUE(services->subkey("intelide")->value("Start")->setNumber(3));
        ASSERT_TRUE(hive->flush());
    }
    windows.addDriver("pciide.sys");
    windows.addDriver("intelide.sys");
    windows.addDriver("msahci.sys");
    const auto keeper = keeperFor({windows.root()}, {StepIde, StepAhci});

    adjustSystemHives(keeper);

    EXPECT_EQ(keeper->getResult(StepIde), StepResult::Failed);
    EXPECT_TRUE(log.sink().contains("PP Win", 4, "Invalid type for 'Start': 1"));
    EXPECT_EQ(hivexget(windows.systemHive(), "\\ControlSet001\\Services\\intelide", "Start"), "0");
    EXPECT_EQ(keeper->getResult(StepAhci), StepResult::Ok);
    EXPECT_EQ(hivexget(windows.systemHive(), "\\ControlSet001\\Services\\msahci", "Start"), "0")
        << "the hive is flushed after a failed group";
}

TEST_F(SystemHiveStep, TheIdeCriticalDeviceIsAddedOnlyWhereItIsMissing)
{
    const WindowsTree present(folder("present"), "SYSTEM");
    const WindowsTree missing(folder("missing"), "SYSTEM");
    {
        const auto hive = missing.openSystemHive();
        const auto database = hive->root()->find("ControlSet001/Control/CriticalDeviceDatabase");
        ASSERT_TRUE(database->removeKey(database->subkey("pci#cc_0101")));
        ASSERT_TRUE(hive->flush());
    }
    const auto exportOf = [](const WindowsTree& windows) {
        return runTool({"hivexregedit", "--export", windows.systemHive(),
                        "\\ControlSet001\\Control\\CriticalDeviceDatabase\\PCI#CC_0101"});
    };
    const std::string before = exportOf(present);
    for (const auto* windows : {&present, &missing})
        windows->addDriver("intelide.sys");

    const auto keeper = keeperFor({present.root(), missing.root()}, {StepIde});
    EXPECT_EQ(adjustSystemHives(keeper), StepResult::Ok);

    EXPECT_EQ(exportOf(present), before);
    const std::string key = "\\ControlSet001\\Control\\CriticalDeviceDatabase\\pci#cc_0101";
    EXPECT_EQ(hivexget(missing.systemHive(), key, "ClassGuid"), "{4D36E96A-E325-11CE-BFC1-08002BE10318}");
    EXPECT_EQ(hivexget(missing.systemHive(), key, "Service"), "pciide");
    EXPECT_EQ(keeper->getResult(StepIde), StepResult::Ok);
}

TEST_F(SystemHiveStep, AnActiveDriverWithItsPathIsLeftByteForByteButCountsAsOk)
{
    const WindowsTree windows(folder("c"), "SYSTEM");
    windows.addDriver("atapi.sys"); // Start 0 and an ImagePath already
    const auto before = bytesOf(windows.systemHive());
    const auto keeper = keeperFor({windows.root()}, {StepAtapi, StepNvme});

    EXPECT_EQ(adjustSystemHives(keeper), StepResult::Ok);

    EXPECT_EQ(keeper->getResult(StepAtapi), StepResult::Ok);
    EXPECT_EQ(keeper->getResult(StepNvme), StepResult::NothingFound) << "no stornvme.sys";
    EXPECT_TRUE(log.sink().contains("PP Win", 1, "Driver already active"));
    EXPECT_EQ(bytesOf(windows.systemHive()), before);
    EXPECT_FALSE(std::filesystem::exists(windows.systemHive() + ".LOG1")) << "nothing was flushed";
}

// SYSTEM_B's primary lags behind its logs; the edit must land on what the logs hold.
TEST_F(SystemHiveStep, ADirtyHiveIsEditedOnTopOfItsLogsAndItsStartOverrideCleared)
{
    const WindowsTree windows(folder("c"), "SYSTEM_B", true);
    windows.addDriver("storahci.sys");
    windows.addDriver("stornvme.sys");
    const auto keeper = keeperFor({windows.root()}, {StepAhci, StepNvme});

    EXPECT_EQ(adjustSystemHives(keeper), StepResult::Ok);

    const std::string hive = windows.systemHive();
    EXPECT_EQ(hivexget(hive, "\\ControlSet001\\Services\\storahci\\StartOverride", "0"), "0");
    EXPECT_TRUE(log.sink().contains("PP Win", 1, "Adjusting 'StartOverride'"));
    EXPECT_EQ(hivexget(hive, "\\ControlSet001\\Services\\storahci", "Start"), "0");
    EXPECT_EQ(keeper->getResult(StepNvme), StepResult::Ok);
    const auto reopened = windows.openSystemHive();
    ASSERT_TRUE(reopened);
    EXPECT_FALSE(reopened->recovered()) << "the primary holds what the logs held";
}

TEST_F(SystemHiveStep, OneWindowsThatCannotBeOpenedFailsTheRunWhileTheOtherIsWritten)
{
    const WindowsTree broken(folder("broken"), "corrupted_system_hive");
    const WindowsTree good(folder("good"), "SYSTEM");
    for (const auto* windows : {&broken, &good})
        windows->addDriver("msahci.sys");
    const auto keeper = keeperFor({broken.root(), good.root()}, {StepAhci});

    EXPECT_EQ(adjustSystemHives(keeper), StepResult::Failed);

    EXPECT_EQ(keeper->getResult(StepAhci), StepResult::Failed) << "the report must show the refused hive";
    EXPECT_TRUE(log.sink().contains("PP Win", 4, "Could not open hive /Windows/System32/config/SYSTEM"));
    EXPECT_EQ(hivexget(good.systemHive(), "\\ControlSet001\\Services\\msahci", "Start"), "0");
}

TEST_F(SystemHiveStep, TheComputerNameComesFromTheNearestParentAndGoesIntoBothValues)
{
    const WindowsTree windows(folder("c"), "SYSTEM");
    const auto keeper = keeperFor({windows.root()}, {StepComputerName}, "COPY-07");

    adjustSystemHives(keeper);

    EXPECT_EQ(keeper->getResult(StepComputerName), StepResult::Ok);
    const std::string hive = windows.systemHive();
    EXPECT_EQ(hivexget(hive, "\\ControlSet001\\Control\\ComputerName\\ComputerName", "ComputerName"), "COPY-07");
    EXPECT_EQ(hivexget(hive, "\\ControlSet001\\Services\\Tcpip\\Parameters", "NV Hostname"), "COPY-07");
    EXPECT_EQ(hivexget(hive, "\\ControlSet002\\Control\\ComputerName\\ComputerName", "ComputerName"), "WIN-V5T3CSP8U4H")
        << "only the current set";

    // The partition's own name wins over the disk's.
    const u64 partition = keeper->findNext(KindPartition, 0, 0);
    keeper->addEntry(KindComputerName, {}, {Variant::string("OWN")}, partition, 0);
    EXPECT_EQ(computerNameFor(*keeper, partition), "OWN");
    EXPECT_EQ(computerNameFor(*keeperFor({windows.root()}, {}), 2), std::nullopt);
}

TEST_F(SystemHiveStep, AComputerNameWithoutItsValueFailsAndLeavesTheHostNameAlone)
{
    const WindowsTree windows(folder("c"), "SYSTEM");
    {
        const auto hive = windows.openSystemHive();
        const auto inner = hive->root()->find("ControlSet001/Control/ComputerName/ComputerName");
        ASSERT_TRUE(inner->deleteValue(inner->value("ComputerName")));
        ASSERT_TRUE(hive->flush());
    }
    const auto keeper = keeperFor({windows.root()}, {StepComputerName}, "COPY-07");
    EXPECT_EQ(adjustSystemHives(keeper), StepResult::Failed);
    EXPECT_EQ(keeper->getResult(StepComputerName), StepResult::Failed);
    EXPECT_TRUE(log.sink().contains("PP Win", 4, "Could nto find valuke 'ComputerName' in ComputerName"));
    EXPECT_EQ(hivexget(windows.systemHive(), "\\ControlSet001\\Services\\Tcpip\\Parameters", "NV Hostname"),
              "WKS-WIN732BITA");

    const auto unnamed = keeperFor({windows.root()}, {StepComputerName});
    adjustSystemHives(unnamed);
    EXPECT_TRUE(log.sink().contains("PP Win", 4, "No value to set new computer name"));
}

TEST_F(SystemHiveStep, AHiveWithoutACurrentControlSetFailsEveryEnabledSubStep)
{
    const WindowsTree windows(folder("c"), "SYSTEM");
    {
        const auto hive = windows.openSystemHive();
        const auto select = hive->root()->subkey("Select");
        ASSERT_TRUE(select->createValue("Current", 1)->setString("1"));
        ASSERT_TRUE(hive->flush());
    }
    const auto keeper = keeperFor({windows.root()}, {StepAhci, StepComputerName}, "X");
    EXPECT_EQ(adjustSystemHives(keeper), StepResult::Failed);
    EXPECT_TRUE(log.sink().contains(
        "PP Win", 4,
        "Libraries::KRO::PostProcessing::getCurrentControlSet: current control set has unsupported type: 1"));
    EXPECT_EQ(keeper->getResult(StepAhci), StepResult::Failed);
    EXPECT_EQ(keeper->getResult(StepComputerName), StepResult::Failed);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Windows
