// The first-start steps on Windows trees in host folders: the hibernation signature, the clean
// shutdown byte and the update-client values, and a hibernated Windows left alone unless the run
// purges its hibernation file.

#include "postprocessing/windows/fresh_start.h"

#include "platform/log/log.h"
#include "postprocessing/windows/system_hive.h"
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

std::vector<std::uint8_t> bytesOf(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A SOFTWARE hive made by hivexsh from an empty store, with the update-client values named.
void writeSoftwareHive(const std::string& path, const std::vector<std::string>& values)
{
    TestSupport::unpackHive("BCD-Template-Win10", path);
    std::string script = "cd Objects\ndel\ncd \\\ncd Description\ndel\ncd \\\n"
                         "add Microsoft\ncd Microsoft\nadd Windows\ncd Windows\nadd CurrentVersion\n"
                         "cd CurrentVersion\nadd WindowsUpdate\ncd WindowsUpdate\nsetval " +
                         std::to_string(values.size() + 1) + "\nLastWaitTimeout\nstring:2024-01-01\n";
    for (const auto& name : values)
        script += name + "\nstring:" + name + "-of-the-source\n";
    script += "commit\n";
    std::ofstream(path + ".hsh") << script;
    runTool({"sh", "-c", "chmod u+w '" + path + "' && hivexsh -w '" + path + "' < '" + path + ".hsh'"});
}

std::string updateValues(const std::string& path)
{
    return runTool({"sh", "-c",
                    "hivexregedit --export '" + path +
                        "' '\\Microsoft\\Windows\\CurrentVersion\\WindowsUpdate' | grep -o '^\"[A-Za-z]*\"' | tr -d "
                        "'\"' | tr '\\n' ' '"});
}

class FreshStart : public ::testing::Test {
protected:
    Ref<Keeper> keeperFor(const std::vector<std::string>& roots, const std::vector<s32>& enabled = {})
    {
        return TestSupport::keeperForFolders(roots, enabled);
    }
    std::string folder(const std::string& name)
    {
        std::filesystem::create_directories(dir.file(name));
        return dir.file(name);
    }

    TestSupport::TempDir dir;
    Platform::ScopedLogCapture log;
};

TEST_F(FreshStart, TheHibernationSignatureIsZeroedAndTheFileKeepsItsSize)
{
    const WindowsTree windows(folder("c"), "SYSTEM");
    std::vector<std::uint8_t> hiberfile(64 << 10, 0x5A);
    windows.writeFile("hiberfil.sys", hiberfile);
    const std::string empty = folder("data");

    EXPECT_EQ(purgeHiberfile(keeperFor({empty})), StepResult::NothingFound);
    EXPECT_EQ(purgeHiberfile(keeperFor({windows.root(), empty})), StepResult::Ok);

    std::fill_n(hiberfile.begin(), 4, 0);
    EXPECT_EQ(bytesOf(windows.root() + "/hiberfil.sys"), hiberfile);
}

TEST_F(FreshStart, TheCleanShutdownByteNeedsTwelveBytes)
{
    const WindowsTree exact(folder("exact"), "SYSTEM");
    const WindowsTree shorter(folder("short"), "SYSTEM");
    exact.writeFile("Windows/bootstat.dat", std::vector<std::uint8_t>(12, 0));
    shorter.writeFile("Windows/bootstat.dat", std::vector<std::uint8_t>(11, 0));

    EXPECT_EQ(setCleanShutdown(keeperFor({exact.root()})), StepResult::Ok);
    EXPECT_EQ(bytesOf(exact.root() + "/Windows/bootstat.dat"),
              (std::vector<std::uint8_t>{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(setCleanShutdown(keeperFor({shorter.root(), exact.root()})), StepResult::Failed);
    EXPECT_TRUE(log.sink().contains("PP Win", 4, "Could not seek bootstat.dat"));
    EXPECT_EQ(bytesOf(shorter.root() + "/Windows/bootstat.dat"), std::vector<std::uint8_t>(11, 0));
}

TEST_F(FreshStart, TheUpdateClientIdIsOkOnlyWhenBothOfItsValuesWent)
{
    struct Case {
        std::vector<std::string> values;
        StepResult result;
        std::string left;
    };
    const std::vector<Case> cases = {
        {{"SusClientId", "SusClientIdValidation", "PingID", "AccountDomainSid"}, StepResult::Ok, "LastWaitTimeout "},
        {{"SusClientId"}, StepResult::NothingFound, "LastWaitTimeout "},
        {{}, StepResult::NothingFound, "LastWaitTimeout "},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        const WindowsTree windows(folder(std::string("c").append(std::to_string(i))), "SYSTEM");
        const std::string software = windows.root() + "/Windows/System32/config/SOFTWARE";
        writeSoftwareHive(software, cases[i].values);
        EXPECT_EQ(clearUpdateClientId(keeperFor({windows.root()})), cases[i].result);
        EXPECT_EQ(updateValues(software), cases[i].left);
    }
}

// Windows would resume its memory image over every offline change.
TEST_F(FreshStart, AHibernatedWindowsIsLeftAloneUnlessTheRunPurgesItsHibernationFile)
{
    const WindowsTree windows(folder("c"), "SYSTEM");
    std::vector<std::uint8_t> hiberfile(8192, 0);
    std::copy_n("hibr", 4, hiberfile.begin());
    windows.writeFile("hiberfil.sys", hiberfile);
    windows.writeFile("Windows/bootstat.dat", std::vector<std::uint8_t>(64, 0));
    windows.addDriver("msahci.sys");
    const auto hiveBefore = bytesOf(windows.systemHive());

    const auto refused = keeperFor({windows.root()}, {StepAhci, StepCleanShutdown});
    EXPECT_EQ(adjustSystemHives(refused), StepResult::Failed);
    EXPECT_EQ(setCleanShutdown(refused), StepResult::Failed);
    EXPECT_EQ(refused->getResult(StepAhci), StepResult::Failed);
    EXPECT_EQ(bytesOf(windows.systemHive()), hiveBefore);
    EXPECT_EQ(bytesOf(windows.root() + "/Windows/bootstat.dat"), std::vector<std::uint8_t>(64, 0));
    EXPECT_EQ(bytesOf(windows.root() + "/hiberfil.sys"), hiberfile);
    const auto texts = log.sink().texts("PP Win");
    ASSERT_FALSE(texts.empty());
    EXPECT_NE(texts.front().find("it is hibernated (hiberfil.sys starts with \"hibr\")"), std::string::npos)
        << texts.front();
    EXPECT_NE(texts.front().find("\"Purge win hiberfile\""), std::string::npos) << "says how to proceed";

    const auto purging = keeperFor({windows.root()}, {StepAhci, StepCleanShutdown, StepHiberfile});
    EXPECT_EQ(adjustSystemHives(purging), StepResult::Ok);
    EXPECT_EQ(runTool({"hivexget", windows.systemHive(), "\\ControlSet001\\Services\\msahci", "Start"}), "0\n");
    EXPECT_EQ(bytesOf(windows.root() + "/hiberfil.sys"), std::vector<std::uint8_t>(8192, 0))
        << "the signature goes before the first change";
    EXPECT_EQ(setCleanShutdown(purging), StepResult::Ok);
    EXPECT_EQ(purgeHiberfile(purging), StepResult::Ok);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Windows
