// Structures a hostile or damaged disk holds, which postclone must refuse before its first write
// instead of handing them to a library that trusts them or writing ids that never reach the disk.

#include "platform/core/crc32.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>

namespace {

using TestSupport::readAt;
using TestSupport::run;
using TestSupport::runTool;

constexpr std::uint64_t kStart = 2048; // the partition's first sector

std::string sh(const std::string& command)
{
    return runTool({"sh", "-c", command});
}

void patch(const std::string& path, std::uint64_t offset, const std::vector<std::uint8_t>& bytes)
{
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(std::streamoff(offset));
    file.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

std::vector<std::uint8_t> le32(std::uint32_t value)
{
    return {std::uint8_t(value), std::uint8_t(value >> 8), std::uint8_t(value >> 16), std::uint8_t(value >> 24)};
}

class Refusals : public testing::Test {
protected:
    TestSupport::TempDir dir;
    std::string image = dir.file("disk.img");

    // An MBR disk with one partition holding a file system made by mkfs (args, then the file).
    void diskWith(std::vector<std::string> mkfs, std::uint64_t mib = 16)
    {
        const std::string part = dir.file("part");
        TestSupport::createImage(part, mib << 20);
        mkfs.push_back(part);
        runTool(mkfs);
        TestSupport::createImage(image, (mib + 2) << 20);
        sh("echo 'start=2048, type=83' | sfdisk -q '" + image + "'");
        runTool({"dd", "if=" + part, "of=" + image, "bs=512", "seek=2048", "conv=notrunc", "status=none"});
    }

    std::string partitionHash()
    {
        return sh("tail -c +" + std::to_string(kStart * 512 + 1) + " '" + image + "' | md5sum");
    }
};

// libext2fs overruns its buffers on some superblocks and would "repair" backups from a damaged
// primary: every one of these is refused by the id step and by the file commands alike, and the
// partition keeps every byte.
TEST_F(Refusals, ExtStructuresLibext2fsCannotTrustAreNeverHandedToIt)
{
    struct Case {
        const char* name;
        std::vector<std::string> mkfs;
        std::uint64_t offset; // in the partition
        std::vector<std::uint8_t> bytes;
        const char* named;
    };
    const std::vector<Case> cases{
        {"first data block 2049", {"mkfs.ext2", "-q", "-F", "-b", "1024"}, 1024 + 0x14, le32(2049), "first data block"},
        {"first data block 100",
         {"mkfs.ext4", "-q", "-F", "-b", "1024", "-O", "^metadata_csum"},
         1024 + 0x14,
         le32(100),
         "first data block"},
        // e2fsck falls back to a backup here; copying this primary over the backups would lose them.
        {"reserved GDT blocks 65535",
         {"mkfs.ext2", "-q", "-F", "-b", "1024"},
         1024 + 0xCE,
         {0xFF, 0xFF},
         "reserved GDT block count"},
        {"first inode 0", {"mkfs.ext4", "-q", "-F", "-O", "^metadata_csum"}, 1024 + 0x54, le32(0), "first inode"},
        // Group 0's block bitmap said to lie on the superblock: allocations would land there.
        {"block bitmap on the superblock",
         {"mkfs.ext2", "-q", "-F", "-b", "1024"},
         2048,
         le32(1),
         "group descriptors are damaged"},
    };
    for (const auto& c : cases) {
        diskWith(c.mkfs);
        patch(image, kStart * 512 + c.offset, c.bytes);
        const std::string before = partitionHash();

        auto result = run({POSTCLONE_BINARY, "--json", "--preset", "1", image});
        EXPECT_EQ(result.exitCode, 1) << c.name << "\n" << result.err;
        if (result.exitCode <= 1) {
            EXPECT_EQ(nlohmann::json::parse(result.out)["steps"][2]["word"], "FAILED") << c.name;
        }
        EXPECT_NE(result.err.find(c.named), std::string::npos) << c.name << ": " << result.err;
        EXPECT_NE(result.err.find("run e2fsck -f"), std::string::npos) << c.name;

        std::ofstream(dir.file("local")) << "content";
        for (const std::vector<std::string>& command : {std::vector<std::string>{"mkdir", "/new"},
                                                        {"put", "/new-file", dir.file("local")},
                                                        {"rm", "/lost+found"}}) {
            std::vector<std::string> argv{POSTCLONE_BINARY, "fs", command[0], image, "1", command[1]};
            if (command.size() > 2)
                argv.push_back(command[2]);
            result = run(argv);
            EXPECT_EQ(result.exitCode, 1) << c.name << ": fs " << command[0];
            EXPECT_NE(result.err.find(c.named), std::string::npos) << c.name << ": " << result.err;
        }
        EXPECT_EQ(partitionHash(), before) << c.name << ": the partition changed";
    }
}

// A GPT that gdisk calls invalid (its entry array reaches into the usable area) is read from its
// backup; trusting it would write the backup array over the end of the last partition.
TEST_F(Refusals, GptHeaderWhoseEntryArrayOverlapsTheUsableAreaIsNotTrusted)
{
    TestSupport::createImage(image, 16 << 20);
    runTool({"sgdisk", "-n1:2048:0", "-t1:8300", image});
    const std::uint64_t sectors = (16 << 20) / 512;
    const std::uint64_t tail = (sectors - 34) * 512 - 300 * 512; // the partition's last 300 sectors
    sh("head -c 153600 /dev/urandom > '" + dir.file("pattern") + "'");
    sh("dd if='" + dir.file("pattern") + "' of='" + image + "' bs=1 seek=" + std::to_string(tail) +
       " conv=notrunc status=none");
    // 1,152 entries of 128 bytes from sector 2: 288 sectors, far past the first usable sector 34.
    auto header = readAt(image, 512, 92);
    const std::uint32_t count = 1152;
    std::copy_n(le32(count).begin(), 4, header.begin() + 80);
    const auto entries = readAt(image, 1024, std::size_t(count) * 128);
    std::copy_n(le32(Platform::crc32(entries)).begin(), 4, header.begin() + 88);
    std::copy_n(le32(0).begin(), 4, header.begin() + 16);
    std::copy_n(le32(Platform::crc32(header)).begin(), 4, header.begin() + 16);
    patch(image, 512, header);
    ASSERT_NE(run({"sgdisk", "-v", image}).out.find("problem"), std::string::npos);

    const auto result = run({POSTCLONE_BINARY, "--enable", "disk-ids", "--enable", "part-ids", image});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.err.find("has its entry array inside the usable area"), std::string::npos) << result.err;
    EXPECT_EQ(readAt(image, tail, 153600), readAt(dir.file("pattern"), 0, 153600)) << "partition data overwritten";
    EXPECT_NE(runTool({"sgdisk", "-v", image}).find("No problems found"), std::string::npos);
}

// A table whose commit fails keeps its old ids, and so must every file that names them.
TEST_F(Refusals, IdsThatNeverReachedTheDiskAreNotWrittenIntoFiles)
{
    const std::string partGuid = "7C44D1F2-2222-4E9A-8C61-2B3D4E5F6071";
    const std::string fsUuid = "3f1e2d4c-5b6a-4978-8a9b-0c1d2e3f4a5b";
    std::filesystem::create_directories(dir.file("root/etc"));
    std::ofstream(dir.file("root/etc/fstab"))
        << "PARTUUID=" << partGuid << " / ext4 defaults 0 1\nUUID=" << fsUuid << " /same ext4 defaults 0 2\n";
    const std::string part = dir.file("part");
    TestSupport::createImage(part, 32 << 20);
    runTool({"mkfs.ext4", "-q", "-F", "-U", fsUuid, "-d", dir.file("root"), part});
    TestSupport::createImage(image, 36 << 20);
    runTool({"sgdisk", "-n1:2048:0", "-u1:" + partGuid, image}); // to the last usable sector
    runTool({"dd", "if=" + part, "of=" + image, "bs=512", "seek=2048", "conv=notrunc", "status=none"});
    // One sector short: the backup header is gone and the table cannot be written whole.
    std::filesystem::resize_file(image, (36 << 20) - 512);

    const auto result = run({POSTCLONE_BINARY, "--json", "--preset", "1", image});
    ASSERT_LE(result.exitCode, 1) << result.err;
    EXPECT_EQ(result.exitCode, 1);
    const auto report = nlohmann::json::parse(result.out);
    EXPECT_EQ(report["steps"][1]["word"], "FAILED");
    const std::string fstab =
        runTool({"debugfs", "-R", "cat /etc/fstab", image + "?offset=" + std::to_string(kStart * 512)});
    EXPECT_EQ(fstab.substr(0, fstab.find('\n')), "PARTUUID=" + partGuid + " / ext4 defaults 0 1");
    EXPECT_EQ(fstab.find(fsUuid), std::string::npos) << "the file-system id did change and must follow";
    bool reportedNotApplied = false;
    for (const auto& mapping : report["mappings"])
        if (mapping["kind"] == 9) {
            EXPECT_FALSE(mapping["applied"].get<bool>()) << mapping;
            reportedNotApplied = true;
        }
    EXPECT_TRUE(reportedNotApplied) << result.out;
}

// An fstab the fstab step cannot read (its cluster chain loops) keeps the old ids: the step fails
// instead of reading Ok.
TEST_F(Refusals, UnreadableMountTableFailsTheStep)
{
    diskWith({"mkfs.fat", "-F", "16", "-s", "4", "-i", "1234ABCD"}, 64);
    setenv("MTOOLS_SKIP_CHECK", "1", 1);
    const std::string fat = image + "@@" + std::to_string(kStart * 512);
    std::ofstream(dir.file("fstab")) << "UUID=1234-ABCD / vfat defaults 0 1\n" << std::string(5000, '#') << "\n";
    runTool({"mmd", "-i", fat, "::/etc"});
    runTool({"mcopy", "-i", fat, dir.file("fstab"), "::/etc/fstab"});
    // /etc took cluster 2 and fstab clusters 3 to 5: point cluster 4 back at 3 in every FAT copy.
    const auto boot = readAt(image, kStart * 512, 512);
    const std::uint64_t reserved = boot[0x0E] | boot[0x0F] << 8, fatSectors = boot[0x16] | boot[0x17] << 8;
    for (std::uint64_t copy = 0; copy < boot[0x10]; ++copy)
        patch(image, (kStart + reserved + copy * fatSectors) * 512 + 4 * 2, {3, 0});
    ASSERT_EQ(run({POSTCLONE_BINARY, "fs", "cat", image, "1", "/etc/fstab"}).exitCode, 1);

    const auto result = run({POSTCLONE_BINARY, "--json", "--preset", "1", image});
    EXPECT_EQ(result.exitCode, 1) << result.err;
    EXPECT_EQ(nlohmann::json::parse(result.out)["steps"][29]["word"], "FAILED") << result.err;
    EXPECT_NE(result.err.find("Could not read /etc/fstab to its end"), std::string::npos) << result.err;
}

// Without a usable temp folder the files naming the ids cannot be rewritten: the run changes
// nothing rather than ids that the files then contradict.
TEST_F(Refusals, UnusableTempFolderChangesNothing)
{
    std::filesystem::create_directories(dir.file("root/etc"));
    std::ofstream(dir.file("root/etc/fstab")) << "UUID=3f1e2d4c-5b6a-4978-8a9b-0c1d2e3f4a5b / ext4 defaults 0 1\n";
    diskWith({"mkfs.ext4", "-q", "-F", "-U", "3f1e2d4c-5b6a-4978-8a9b-0c1d2e3f4a5b", "-d", dir.file("root")});
    const std::string hash = sh("md5sum < '" + image + "'");
    std::ofstream(dir.file("a-file")) << "not a folder";
    for (const std::string& tmpdir : {dir.file("missing"), dir.file("a-file")}) {
        const auto result = run({"env", "TMPDIR=" + tmpdir, POSTCLONE_BINARY, "--json", "--preset", "1", image});
        EXPECT_EQ(result.exitCode, 1) << tmpdir;
        EXPECT_NE(result.err.find("(TMPDIR)"), std::string::npos) << result.err;
        EXPECT_NE(result.err.find(tmpdir), std::string::npos) << result.err;
        EXPECT_EQ(nlohmann::json::parse(result.out)["steps"][2]["word"], "FAILED");
        EXPECT_EQ(sh("md5sum < '" + image + "'"), hash) << tmpdir << ": the disk changed";
    }
}

} // namespace
