// The run journal on a Linux disk in use (GPT, an EFI partition with GRUB's configuration, an ext4
// root with metadata checksums, fstab and grub.cfg): postclone undo gives the image back byte for
// byte, and a run killed at any of its writes (strace's fault injection) is put back by the next
// run, which then completes. Checked with md5sum, e2fsck, dumpe2fs, blkid and mtools.

#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

namespace {

using TestSupport::run;
using TestSupport::runTool;

constexpr std::uint64_t kEfiStart = 2048;
constexpr std::uint64_t kRootStart = 67584;
const std::string kRootUuid = "5b1f7c0e-2a4d-4e6f-8a1b-9c2d3e4f5a6b";

void write(const std::string& path, const std::string& content)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string sh(const std::string& command)
{
    return runTool({"sh", "-c", command});
}

class RunJournalOnDisk : public testing::Test {
protected:
    TestSupport::TempDir dir;
    std::string pristine = dir.file("pristine.img");
    std::string image = dir.file("disk.img");
    std::string journals = dir.file("journals");

    void SetUp() override
    {
        const std::string tree = dir.file("tree");
        for (int i = 0; i < 3000; ++i)
            write(tree + "/usr/share/doc/package-" + std::to_string(i) + "/copyright", "text " + std::to_string(i));
        write(tree + "/etc/fstab", "UUID=" + kRootUuid + " / ext4 errors=remount-ro 0 1\n");
        write(tree + "/boot/grub/grub.cfg", "search --no-floppy --fs-uuid --set=root " + kRootUuid +
                                                "\nlinux /boot/vmlinuz root=UUID=" + kRootUuid + " ro quiet\n");
        const std::string root = dir.file("root.fs"), efi = dir.file("efi.fs");
        TestSupport::createImage(root, 160 << 20); // two block groups: a backup superblock at 32768
        runTool({"mkfs.ext4", "-q", "-F", "-b", "4096", "-U", kRootUuid, "-O", "metadata_csum,^metadata_csum_seed",
                 "-d", tree, root});
        runTool({"debugfs", "-w", "-R", "ssv mnt_count 17", root}); // mounted since its last check
        TestSupport::createImage(efi, 32 << 20);
        runTool({"mkfs.fat", "-F", "16", "-h", std::to_string(kEfiStart), efi});
        write(dir.file("efi-grub.cfg"), "search.fs_uuid " + kRootUuid + " root\n");
        sh("mmd -i '" + efi + "' ::/EFI ::/EFI/debian && mcopy -i '" + efi + "' '" + dir.file("efi-grub.cfg") +
           "' ::/EFI/debian/grub.cfg");
        TestSupport::createImage(pristine, 196 << 20);
        runTool({"sgdisk", "-n1:2048:+32M", "-t1:ef00", "-n2:67584:+160M", "-t2:8300", pristine});
        for (const auto& [part, start] : {std::pair{efi, kEfiStart}, std::pair{root, kRootStart}})
            runTool({"dd", "if=" + part, "of=" + pristine, "bs=512", "seek=" + std::to_string(start), "conv=notrunc",
                     "status=none"});
        fresh();
    }

    void fresh() { std::filesystem::copy_file(pristine, image, std::filesystem::copy_options::overwrite_existing); }
    std::string md5(const std::string& path) { return sh("md5sum < '" + path + "'"); }
    TestSupport::CommandResult postclone(std::vector<std::string> args)
    {
        args.insert(args.begin(), POSTCLONE_BINARY);
        return run(args);
    }
    TestSupport::CommandResult presetOne() { return postclone({"--preset", "1", "--journal-dir", journals, image}); }
    std::string rootOffset() const { return std::to_string(kRootStart * 512); }

    // Every place that names the root file system names the one it has, and it is sound.
    void expectOneConsistentNewRoot(const std::string& context)
    {
        const auto check = run({"e2fsck", "-fn", image + "?offset=" + rootOffset()});
        EXPECT_EQ(check.exitCode, 0) << context << ":\n" << check.out << check.err;
        const std::string uuid = sh("blkid -p -O " + rootOffset() + " -o value -s UUID '" + image + "' | tr -d '\\n'");
        EXPECT_NE(uuid, kRootUuid) << context;
        const std::string backup = sh("dumpe2fs -o superblock=32768 -o blocksize=4096 -h '" + image +
                                      "?offset=" + rootOffset() + "' 2>/dev/null | sed -n 's/^Filesystem UUID: *//p'");
        EXPECT_EQ(backup, uuid + "\n") << context << ": the backup superblock";
        const auto cat = [&](const std::string& path) {
            return sh("debugfs -R 'cat " + path + "' '" + image + "?offset=" + rootOffset() + "' 2>/dev/null");
        };
        EXPECT_EQ(cat("/etc/fstab"), "UUID=" + uuid + " / ext4 errors=remount-ro 0 1\n") << context;
        EXPECT_EQ(cat("/boot/grub/grub.cfg"), "search --no-floppy --fs-uuid --set=root " + uuid +
                                                  "\nlinux /boot/vmlinuz root=UUID=" + uuid + " ro quiet\n")
            << context;
        EXPECT_EQ(sh("mtype -i '" + image + "@@" + std::to_string(kEfiStart * 512) + "' ::/EFI/debian/grub.cfg"),
                  "search.fs_uuid " + uuid + " root\n")
            << context;
    }
};

TEST_F(RunJournalOnDisk, UndoGivesTheImageBackByteForByteAndRefusesAChangedDisk)
{
    const std::string before = md5(image);
    auto result = presetOne();
    ASSERT_EQ(result.exitCode, 0) << result.err;
    ASSERT_NE(md5(image), before);
    expectOneConsistentNewRoot("after the run");

    result = postclone({"undo", "--journal-dir", journals, image});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("put back"), std::string::npos) << result.out;
    EXPECT_EQ(md5(image), before);
    result = postclone({"undo", "--journal-dir", journals, image});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("no run on"), std::string::npos) << result.err;

    // A disk used after the run: its new content is not overwritten with the old.
    ASSERT_EQ(presetOne().exitCode, 0);
    sh("printf 'X' | dd of='" + image + "' bs=1 seek=$((" + std::to_string(kRootStart * 512) +
       " + 1024 + 200)) conv=notrunc status=none"); // a byte of the ext4 superblock, which the run wrote
    const std::string used = md5(image);
    result = postclone({"undo", "--journal-dir", journals, image});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("changed after the run"), std::string::npos) << result.err;
    EXPECT_EQ(md5(image), used);
}

// LeakSanitizer cannot run under ptrace: a sanitized postclone traced by strace checks
// everything else (the variable is passed on as it is, with the leak check off).
std::string untracedLeakCheck()
{
    const char* options = std::getenv("ASAN_OPTIONS");
    return std::string("ASAN_OPTIONS=") + (options ? std::string(options) + ":" : "") + "detect_leaks=0";
}

// The write calls of a whole run, and those after each flush: where one step's changes are on the
// disk and the next step's are not.
struct WriteCalls {
    std::uint64_t total = 0;
    std::vector<std::uint64_t> afterFlush; // 1-based number of the first write after each flush
};

WriteCalls countWrites(const std::string& trace)
{
    WriteCalls calls;
    std::istringstream lines(trace);
    bool flushed = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("pwrite64(") != std::string::npos) {
            ++calls.total;
            if (flushed)
                calls.afterFlush.push_back(calls.total);
            flushed = false;
        } else if (line.find("fsync(") != std::string::npos) {
            flushed = true;
        }
    }
    return calls;
}

// Killed at write k, for at least 20 k spread over the run and at the first write after each
// step's flush (ids on the disk, the files naming them not yet): the next run puts the killed
// run's sectors back, then completes, so that one new UUID is named everywhere; undo instead gives
// the original image.
TEST_F(RunJournalOnDisk, ARunKilledAtAnyWriteIsPutBackByTheNextRunOrByUndo)
{
    const auto traced =
        run({"strace", "-f", "-qq", "-e", "trace=pwrite64,fsync", "-e", "signal=none", "-o", dir.file("trace"), "env",
             untracedLeakCheck(), POSTCLONE_BINARY, "--preset", "1", "--journal-dir", journals, image});
    ASSERT_EQ(traced.exitCode, 0) << traced.err;
    const WriteCalls calls = countWrites(TestSupport::readFile(dir.file("trace")));
    ASSERT_GE(calls.total, 20u);
    ASSERT_GE(calls.afterFlush.size(), 2u) << "the ids and the files are written by different steps";
    std::set<std::uint64_t> points(calls.afterFlush.begin(), calls.afterFlush.end());
    for (std::uint64_t i = 0; i < 20; ++i)
        points.insert(1 + i * (calls.total - 1) / 19);

    const std::string original = md5(pristine);
    for (const std::uint64_t point : points) {
        const std::string context = "killed at write " + std::to_string(point) + " of " + std::to_string(calls.total);
        const auto killedRun = [&] {
            fresh();
            std::filesystem::remove_all(journals);
            const auto killed =
                run({"strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=pwrite64", "-e",
                     "inject=pwrite64:signal=KILL:when=" + std::to_string(point), "env", untracedLeakCheck(),
                     POSTCLONE_BINARY, "--preset", "1", "--journal-dir", journals, image});
            ASSERT_NE(killed.exitCode, 0) << context;
        };
        killedRun();
        const auto next = presetOne();
        EXPECT_EQ(next.exitCode, 0) << context << ": " << next.err;
        EXPECT_NE(next.err.find("did not finish"), std::string::npos) << context << ": " << next.err;
        expectOneConsistentNewRoot(context);

        killedRun();
        const auto undone = postclone({"undo", "--journal-dir", journals, image});
        EXPECT_EQ(undone.exitCode, 0) << context << ": " << undone.err;
        EXPECT_EQ(md5(image), original) << context;
    }
}

} // namespace
