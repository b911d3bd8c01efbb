// postclone as a user runs it: arguments in, report and exit status out.

#include "tests/support/command.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using TestSupport::run;

class PostcloneCli : public testing::Test {
protected:
    TestSupport::TempDir dir;
    std::string image = dir.file("blank.img");

    void SetUp() override { TestSupport::createImage(image, 8 << 20); }

    static TestSupport::CommandResult postclone(std::vector<std::string> args)
    {
        args.insert(args.begin(), POSTCLONE_BINARY);
        return run(args);
    }
};

TEST_F(PostcloneCli, BlankImageWithNoSwitchesReadsNotActivatedExceptTheSystemHiveGroup)
{
    const auto result = postclone({"--json", image});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto report = nlohmann::json::parse(result.out);
    ASSERT_EQ(report["steps"].size(), 31u);
    for (int slot = 0; slot < 31; ++slot) {
        const auto& step = report["steps"][slot];
        EXPECT_EQ(step["slot"], slot);
        const int expected = slot >= 16 && slot <= 24 ? 0 : 1;
        EXPECT_EQ(step["result"], expected) << "slot " << slot;
        EXPECT_EQ(step["word"], expected == 0 ? "Not accessed" : "Not activated");
    }
    EXPECT_EQ(report["steps"][29]["name"], "fstab");
    EXPECT_EQ(report["steps"][29]["label"], "Adjusting linux fstab");
    EXPECT_TRUE(report["mappings"].empty());
}

TEST_F(PostcloneCli, LogLevelControlsWhatReachesStderr)
{
    const auto quiet = postclone({"--preset", "1", image});
    EXPECT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(quiet.err.find("Change or get disk ids"), std::string::npos);
    EXPECT_NE(quiet.err.find("PP Handler: New disks ids: Nothing found"), std::string::npos);
    EXPECT_NE(quiet.out.find("fstab"), std::string::npos);

    const auto verbose = postclone({"--log-level", "1", "--preset", "1", "--disable", "nvme", image});
    EXPECT_NE(verbose.err.find("PP Handler: - Activate IDE"), std::string::npos);
    EXPECT_EQ(verbose.err.find("- Activate NVMe"), std::string::npos);
}

TEST_F(PostcloneCli, ListStepsNamesEverySlot)
{
    const auto result = postclone({"--list-steps"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 31);
    EXPECT_NE(result.out.find("30  gpt-migration       Migrate GPT"), std::string::npos);
}

TEST_F(PostcloneCli, VersionIsTheProjectsAndNeedsNoTarget)
{
    const auto result = postclone({"--version"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, std::string("postclone ") + PROJECT_VERSION + "\n");
}

TEST_F(PostcloneCli, BadInputIsAOneLineErrorWithExitTwo)
{
    const std::vector<std::vector<std::string>> cases{
        {"--enable", "no-such-step", image},
        {dir.file("missing.img")},
        {dir.path().string()},
        {"--geometry", "1023,16", image},
        {"--source", image, "--source", image, image},
        {"--log-level", "9", image},
        {"--bogus", image},
        {},
    };
    for (const auto& args : cases) {
        const auto result = postclone(args);
        EXPECT_EQ(result.exitCode, 2) << result.err;
        EXPECT_TRUE(result.out.empty());
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(result.err.rfind("postclone: ", 0), 0u) << result.err;
    }
    EXPECT_NE(postclone({dir.file("missing.img")}).err.find("missing.img"), std::string::npos);
}

} // namespace
