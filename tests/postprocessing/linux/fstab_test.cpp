#include "postprocessing/linux/fstab.h"

#include "platform/log/log.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <fstream>

namespace Libraries::KRO::PostProcessing::Linux {
namespace {

const UuidReplaceMap kFsIds{{"0a1b-2c3d", "4e5f-6071"}, {"a b", "c d"}};
const UuidReplaceMap kPartitionIds{{"1a2b3c4d-01", "5e6f7a8b-01"}};

std::string line(const std::string& text, const UuidReplaceMap& map, const char* prefix)
{
    std::string p = prefix;
    return replaceFstabLine(text, map, p);
}

TEST(Fstab, DeviceFieldsAreRewrittenAndTheRestKept)
{
    Platform::ScopedLogCapture log;
    EXPECT_EQ(line("UUID=0a1b-2c3d / ext4 defaults 0 1", kFsIds, "UUID="), "UUID=4e5f-6071 / ext4 defaults 0 1");
    EXPECT_EQ(line("UUID=0A1B-2C3D  /\text4", kFsIds, "UUID="), "UUID=4E5F-6071  /\text4");
    EXPECT_EQ(line("/dev/disk/by-uuid/0a1b-2c3d\tswap", kFsIds, "/dev/disk/by-uuid/"),
              "/dev/disk/by-uuid/4e5f-6071\tswap");
    EXPECT_EQ(line("PARTUUID=1a2b3c4d-01 /boot vfat", kPartitionIds, "PARTUUID="), "PARTUUID=5e6f7a8b-01 /boot vfat");
    EXPECT_EQ(line("UUID=a\\040b /x ext4", kFsIds, "UUID="), "UUID=c\\040d /x ext4");
    EXPECT_EQ(line("UUID=0a1b-2c3d", kFsIds, "UUID="), "UUID=0a1b-2c3d");
    EXPECT_TRUE(log.sink().contains("PP Linux", 1, "Unsupported fstab lineUUID=0a1b-2c3d"));
}

// The whole file through a host folder: every line kept byte for byte unless its id changed.
struct FstabFile : testing::Test {
    TestSupport::TempDir dir;
    Ref<Platform::Filesys> fs = Platform::Filesys::create(dir.path().string(), 0x11, Platform::Access::ReadWrite);

    StepResult run(const std::string& content, std::string& after)
    {
        std::ofstream(dir.file("in"), std::ios::binary) << content;
        Platform::LineReader reader(fs->openFile("/in", Platform::OpenFlags::Read));
        auto out = fs->openFile("/out", Platform::OpenFlags::CreateOrTruncate);
        Platform::LineWriter writer(out);
        const StepResult result = adjustFstabLines(reader, writer, kFsIds, kPartitionIds);
        writer.finish();
        std::ifstream in(dir.file("out"), std::ios::binary);
        after.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        return result;
    }
};

TEST_F(FstabFile, LineEndingsLongLinesAndGarbageSurvive)
{
    std::string after;
    const std::string crlf = "# comment\r\nUUID=0a1b-2c3d / ext4 defaults 0 1\r\n  UUID=0a1b-2c3d / x\r\nproc /proc";
    EXPECT_EQ(run(crlf, after), StepResult::Ok);
    EXPECT_EQ(after, "# comment\r\nUUID=4e5f-6071 / ext4 defaults 0 1\r\n  UUID=0a1b-2c3d / x\r\nproc /proc");

    const std::string longLine = "UUID=0a1b-2c3d " + std::string(300000, 'o') + "\n";
    EXPECT_EQ(run(longLine, after), StepResult::Ok);
    EXPECT_EQ(after, "UUID=4e5f-6071 " + std::string(300000, 'o') + "\n");

    std::string garbage;
    for (int i = 0; i < 70000; ++i)
        garbage += char(i * 31 % 256);
    EXPECT_EQ(run(garbage, after), StepResult::NothingFound);
    EXPECT_EQ(after, garbage);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Linux
