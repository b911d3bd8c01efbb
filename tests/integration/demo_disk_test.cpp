// The demo disk (GPT, FAT with a Raspberry Pi command line, ext4 whose fstab and grub.cfg name ids,
// swap). postclone --dry-run opens it read-only and leaves it byte for byte the same; its report
// lists the sectors and the file diffs, and a real run afterwards changes exactly the sectors the
// dry run listed (compared with cmp). A --mounted folder is only read. postclone undo after
// --preset 1 gives the image back byte for byte.

#include "tests/support/command.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <unistd.h>

namespace {

using TestSupport::run;
using TestSupport::runTool;
namespace fs = std::filesystem;

const std::string kRootUuid = "3f1e2d4c-5b6a-4978-8a9b-0c1d2e3f4a5b";

std::string md5(const std::string& path)
{
    return runTool({"md5sum", path}).substr(0, 32);
}

// Every sector a step said it would change.
std::set<std::uint64_t> listedSectors(const nlohmann::json& report)
{
    std::set<std::uint64_t> sectors;
    for (const auto& step : report["steps"])
        for (const auto& target : step["would_change"]["sectors"])
            for (const auto& range : target["ranges"])
                for (std::uint64_t s = range["first"];
                     s < range["first"].get<std::uint64_t>() + range["count"].get<std::uint64_t>(); ++s)
                    sectors.insert(s);
    return sectors;
}

// The sectors in which two images differ, as cmp -l shows the bytes.
std::set<std::uint64_t> differingSectors(const std::string& a, const std::string& b)
{
    const auto result = run({"cmp", "-l", a, b});
    std::set<std::uint64_t> sectors;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);)
        sectors.insert((std::stoull(line) - 1) / 512);
    return sectors;
}

// The file edits of the whole report, by path.
std::map<std::string, nlohmann::json> listedFiles(const nlohmann::json& report)
{
    std::map<std::string, nlohmann::json> files;
    for (const auto& step : report["steps"])
        for (const auto& file : step["would_change"]["files"])
            files[file["path"]] = file;
    return files;
}

class DemoDisk : public testing::Test {
protected:
    TestSupport::TempDir dir;
    std::string image = dir.file("demo.img");

    void SetUp() override { runTool({SOURCE_DIR "/scripts/make-demo-disk", image}); }

    // postclone on an image nobody may write: as root, run by an unprivileged user, since root
    // writes to a read-only file all the same.
    TestSupport::CommandResult runOnReadOnlyImage(std::vector<std::string> args)
    {
        fs::permissions(image, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
        std::string postclone = POSTCLONE_BINARY;
        if (::geteuid() == 0) {
            // A copy the user can reach, whatever the build folder's parents allow.
            postclone = dir.file("postclone");
            fs::copy_file(POSTCLONE_BINARY, postclone);
            fs::permissions(dir.path(), fs::perms::all & ~fs::perms::group_write & ~fs::perms::others_write);
            args.insert(args.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
        }
        args.insert(args.begin() + (::geteuid() == 0 ? 4 : 0), postclone);
        return run(args);
    }
};

TEST_F(DemoDisk, ADryRunWritesNothingListsTheSectorsAndDiffsAndARealRunChangesExactlyThoseSectors)
{
    const std::string before = md5(image);
    const auto dry = runOnReadOnlyImage({"--dry-run", "--json", "--preset", "1", image});
    ASSERT_EQ(dry.exitCode, 0) << dry.err;
    EXPECT_EQ(md5(image), before);
    const auto report = nlohmann::json::parse(dry.out);
    EXPECT_TRUE(report["dry_run"]);
    for (const auto& step : report["steps"])
        EXPECT_EQ(step["io"]["sectors_written"], 0) << step["name"];

    const auto files = listedFiles(report);
    ASSERT_EQ(files.count("/etc/fstab"), 1u);
    ASSERT_EQ(files.count("/boot/grub/grub.cfg"), 1u);
    ASSERT_EQ(files.count("/cmdline.txt"), 1u);
    EXPECT_EQ(files.at("/etc/fstab")["volume"], image + " partition 2");
    EXPECT_EQ(files.at("/cmdline.txt")["volume"], image + " partition 1");
    const std::string fstabDiff = files.at("/etc/fstab")["diff"];
    EXPECT_NE(fstabDiff.find("--- /etc/fstab\n+++ /etc/fstab\n@@ -1,5 +1,5 @@\n # /etc/fstab"), std::string::npos)
        << fstabDiff;
    EXPECT_NE(fstabDiff.find("\n-UUID=" + kRootUuid + " / ext4"), std::string::npos) << fstabDiff;
    const std::string grubDiff = files.at("/boot/grub/grub.cfg")["diff"];
    EXPECT_NE(grubDiff.find("-search --no-floppy --fs-uuid --set=root " + kRootUuid), std::string::npos) << grubDiff;
    EXPECT_NE(grubDiff.find("\n+search --no-floppy --fs-uuid --set=root "), std::string::npos) << grubDiff;

    // The same run for real: the ids are new ones again, the sectors they live in are the same.
    const std::string original = dir.file("original.img");
    fs::copy_file(image, original);
    fs::permissions(image, fs::perms::owner_read | fs::perms::owner_write);
    const auto real = run({POSTCLONE_BINARY, "--no-journal", "--preset", "1", image});
    ASSERT_EQ(real.exitCode, 0) << real.err;
    const auto listed = listedSectors(report);
    EXPECT_GT(listed.size(), 20u);
    EXPECT_EQ(differingSectors(original, image), listed);
    EXPECT_EQ(runTool({POSTCLONE_BINARY, "fs", "cat", image, "2", "/etc/fstab"}).find(kRootUuid), std::string::npos);
}

// The folder a partition is mounted at is read, never written: its edits are shown as diffs.
TEST_F(DemoDisk, ADryRunLeavesAMountedFolderAsItWasAndShowsItsEdits)
{
    const std::string mounted = dir.file("mnt");
    fs::create_directories(mounted + "/etc");
    std::ofstream(mounted + "/etc/fstab") << "UUID=" << kRootUuid << " / ext4 errors=remount-ro 0 1\n";
    const auto stamp = fs::last_write_time(mounted + "/etc/fstab");

    const auto dry = runOnReadOnlyImage({"--dry-run", "--preset", "1", "--mounted", "2=" + mounted, image});
    ASSERT_EQ(dry.exitCode, 0) << dry.err;
    EXPECT_EQ(TestSupport::readFile(mounted + "/etc/fstab"), "UUID=" + kRootUuid + " / ext4 errors=remount-ro 0 1\n");
    EXPECT_EQ(fs::last_write_time(mounted + "/etc/fstab"), stamp);
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(mounted), fs::recursive_directory_iterator()), 2);
    EXPECT_NE(dry.out.find("dry run: nothing was written; the run would change:\n"), std::string::npos) << dry.out;
    EXPECT_NE(dry.out.find("    " + mounted +
                           ": /etc/fstab changed\n      --- /etc/fstab\n      +++ /etc/fstab\n"
                           "      @@ -1 +1 @@\n      -UUID=" +
                           kRootUuid),
              std::string::npos)
        << dry.out;
}

TEST_F(DemoDisk, UndoAfterPresetOneGivesTheImageBackByteForByte)
{
    const std::string before = md5(image);
    const std::string journals = dir.file("journals");
    auto result = run({POSTCLONE_BINARY, "--preset", "1", "--journal-dir", journals, image});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    ASSERT_NE(md5(image), before);
    result = run({POSTCLONE_BINARY, "undo", "--journal-dir", journals, image});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(md5(image), before);
}

} // namespace
