// postclone fs on images made by mkfs, checked by the file systems' own tools.

#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

using TestSupport::run;
using TestSupport::runTool;

class FsCommand : public testing::Test {
protected:
    TestSupport::TempDir dir;
    std::string image = dir.file("disk.img");
    std::string offset = std::to_string(2048 * 512);

    void SetUp() override
    {
        TestSupport::createImage(image, 80 << 20);
        std::ofstream(dir.file("layout")) << "label: dos\nstart=2048, type=83\n";
        ASSERT_EQ(run({"sh", "-c", "sfdisk -q '" + image + "' < '" + dir.file("layout") + "'"}).exitCode, 0);
        runTool({"mkfs.ext4", "-q", "-F", "-E", "offset=" + offset, image, "70M"});
    }

    static TestSupport::CommandResult fs(std::vector<std::string> args)
    {
        args.insert(args.begin(), {POSTCLONE_BINARY, "fs"});
        return run(args);
    }
    std::string local(const std::string& name, std::size_t bytes)
    {
        std::string content;
        for (std::size_t i = 0; i < bytes; ++i)
            content += char('a' + i * 7 % 26);
        std::ofstream(dir.file(name), std::ios::binary) << content;
        return dir.file(name);
    }
};

TEST_F(FsCommand, Ext4RoundTripReadsBackWithDebugfsAndStaysClean)
{
    ASSERT_EQ(fs({"mkdir", image, "1", "/etc"}).exitCode, 0);
    for (std::size_t size : {300000u, 5000u, 70000u}) { // created, shrunk, grown again
        const std::string source = local("data", size);
        const auto put = fs({"put", image, "1", "/etc/fstab", source});
        ASSERT_EQ(put.exitCode, 0) << put.err;
        std::ifstream in(source, std::ios::binary);
        const std::string expected{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        EXPECT_EQ(runTool({"debugfs", "-R", "cat /etc/fstab", image + "?offset=" + offset}), expected);
        EXPECT_EQ(fs({"cat", image, "1", "/etc/fstab"}).out, expected);
    }
    EXPECT_NE(fs({"ls", image, "1", "/etc"}).out.find("fstab\t70000"), std::string::npos);
    EXPECT_EQ(fs({"rm", image, "1", "/etc/fstab"}).exitCode, 0);
    EXPECT_EQ(fs({"ls", image, "1", "/etc"}).out, "");
    EXPECT_EQ(run({"e2fsck", "-fn", image + "?offset=" + offset}).exitCode, 0);
}

TEST_F(FsCommand, MissingThingsAreExitOneAndExtNamesAreCaseSensitive)
{
    ASSERT_EQ(fs({"put", image, "1", "/Config", local("x", 10)}).exitCode, 0);
    const auto lower = fs({"cat", image, "1", "/config"});
    EXPECT_EQ(lower.exitCode, 1);
    EXPECT_EQ(lower.err, "postclone: /config: no such file or directory\n");
    EXPECT_EQ(fs({"ls", image, "2", "/"}).exitCode, 1);
    EXPECT_EQ(fs({"cat", image, "1"}).exitCode, 2);
    EXPECT_EQ(fs({"chmod", image, "1", "/x"}).exitCode, 2);
}

TEST_F(FsCommand, DamagedSuperblockIsAnErrorAndNothingIsWritten)
{
    {
        std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(2048 * 512 + 1024 + 0x38); // the magic number
        file.put('\0');
    }
    const auto before = runTool({"sha256sum", image});
    const auto result = fs({"put", image, "1", "/x", local("x", 10)});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("holds no file system"), std::string::npos);
    EXPECT_EQ(runTool({"sha256sum", image}), before);
}

} // namespace
