// Volume ids, recorded offsets, boot-sector geometry and partition types on file systems made by
// their own mkfs, checked with blkid and each family's own checker.

#include "tests/support/command.h"
#include "tests/support/file_system_families.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <regex>

namespace {

using TestSupport::families;
using TestSupport::Family;
using TestSupport::readAt;
using TestSupport::run;
using TestSupport::runTool;

constexpr std::uint64_t kMiB = 1 << 20;

std::string lowerNoDashes(std::string text)
{
    text.erase(std::remove(text.begin(), text.end(), '-'), text.end());
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

void copyRange(const std::string& from, std::uint64_t fromOffset, const std::string& to, std::uint64_t toOffset,
               std::uint64_t length)
{
    std::ifstream in(from, std::ios::binary);
    std::fstream out(to, std::ios::in | std::ios::out | std::ios::binary);
    in.seekg(std::streamoff(fromOffset));
    out.seekp(std::streamoff(toOffset));
    std::vector<char> buffer(kMiB);
    for (std::uint64_t done = 0; done < length;) {
        const auto chunk = std::streamsize(std::min<std::uint64_t>(buffer.size(), length - done));
        in.read(buffer.data(), chunk);
        out.write(buffer.data(), chunk);
        done += std::uint64_t(chunk);
    }
}

class FileSystems : public testing::Test {
protected:
    TestSupport::TempDir dir;

    // A disk image with one MBR partition at start (type 0x83 unless given) holding a new file
    // system of the family; the populated source tree goes in where mkfs can take one.
    std::string diskWith(const Family& family, std::uint64_t start = 2048, const std::string& type = "83")
    {
        const std::string part = dir.file(family.name + ".part");
        TestSupport::createImage(part, family.mib * kMiB);
        auto mkfs = family.mkfs;
        if (family.name.rfind("ext", 0) == 0)
            mkfs.insert(mkfs.end(), {"-d", sourceTree()});
        mkfs.push_back(part);
        runTool(mkfs);
        const std::string image = dir.file(family.name + ".img");
        TestSupport::createImage(image, (family.mib + 4) * kMiB);
        partition(image, start, family.mib * kMiB / 512, type);
        copyRange(part, 0, image, start * 512, family.mib * kMiB);
        return image;
    }

    void partition(const std::string& image, std::uint64_t start, std::uint64_t sectors, const std::string& type)
    {
        std::ofstream(dir.file("layout"))
            << "label: dos\nstart=" << start << ", size=" << sectors << ", type=" << type << "\n";
        ASSERT_EQ(run({"sh", "-c", "sfdisk -q '" + image + "' < '" + dir.file("layout") + "'"}).exitCode, 0);
    }

    // A few thousand files in a hashed directory, a fragmented sparse file and a symlink.
    std::string sourceTree()
    {
        const std::string root = dir.file("tree");
        if (std::filesystem::exists(root))
            return root;
        std::filesystem::create_directories(root + "/big");
        for (int i = 0; i < 2000; ++i)
            std::ofstream(root + "/big/file_with_a_longish_name_" + std::to_string(i)) << i;
        std::ofstream sparse(root + "/sparse", std::ios::binary);
        for (int i = 0; i < 40; ++i) {
            sparse.seekp(i * 65536);
            sparse << std::string(4096, 'x');
        }
        std::filesystem::create_symlink("sparse", root + "/link");
        return root;
    }

    // Runs the family's checker on the partition cut out of the image; clean means exit 0 and,
    // for fsck.fat (which exits 0 on some faults), nothing beyond its two summary lines.
    void expectClean(const Family& family, const std::string& image, std::uint64_t start)
    {
        const std::string part = dir.file("check.part");
        TestSupport::createImage(part, family.mib * kMiB);
        copyRange(image, start * 512, part, 0, family.mib * kMiB);
        auto check = family.check;
        check.push_back(part);
        const auto result = run(check);
        EXPECT_EQ(result.exitCode, 0) << family.name << ":\n" << result.out << result.err;
        if (family.name.rfind("fat", 0) == 0) {
            EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 2) << result.out;
        }
    }

    static nlohmann::json postclone(std::vector<std::string> args)
    {
        args.insert(args.begin(), {POSTCLONE_BINARY, "--json"});
        const auto result = run(args);
        EXPECT_LE(result.exitCode, 1) << result.err;
        return result.exitCode <= 1 ? nlohmann::json::parse(result.out) : nlohmann::json();
    }
};

TEST_F(FileSystems, NewVolumeIdsAreSeenByBlkidAndCheckersStayClean)
{
    for (const auto& family : families()) {
        const std::string image = diskWith(family);
        const std::string offset = std::to_string(2048 * 512);
        const auto blkid = [&] { return runTool({"blkid", "-p", "-O", offset, "-o", "value", "-s", "UUID", image}); };
        const std::string before = blkid();
        const auto report = postclone({"--enable", "fs-ids", image});
        EXPECT_EQ(report["steps"][2]["word"], "Ok") << family.name;
        const std::string after = blkid();
        EXPECT_NE(after, before) << family.name;
        std::string recorded;
        for (const auto& mapping : report["mappings"])
            if (mapping["kind"] == 13) {
                EXPECT_EQ(lowerNoDashes(mapping["old"]), lowerNoDashes(before.substr(0, before.size() - 1)));
                recorded = mapping["new"];
            }
        EXPECT_EQ(lowerNoDashes(recorded), lowerNoDashes(after.substr(0, after.size() - 1))) << family.name;
        expectClean(family, image, 2048);
    }
}

TEST_F(FileSystems, Ext4BackupSuperblocksCarryTheNewUuid)
{
    const std::string image = diskWith(families()[4]);
    postclone({"--enable", "fs-ids", image});
    const std::string part = dir.file("ext4.part");
    copyRange(image, 2048 * 512, part, 0, 64 * kMiB);
    const std::regex uuid("Filesystem UUID:\\s+(\\S+)");
    std::smatch primary, backup;
    const std::string main = runTool({"dumpe2fs", "-h", part});
    const std::string copy = run({"dumpe2fs", "-h", "-o", "superblock=8193", "-o", "blocksize=1024", part}).out;
    ASSERT_TRUE(std::regex_search(main, primary, uuid));
    ASSERT_TRUE(std::regex_search(copy, backup, uuid));
    EXPECT_EQ(primary[1].str(), backup[1].str());
}

TEST_F(FileSystems, XfsLogCarriesTheNewUuidAndIsClean)
{
    const Family& xfs = families().back();
    const std::string image = diskWith(xfs);
    postclone({"--enable", "fs-ids", image});
    const std::string part = dir.file("xfs.part");
    copyRange(image, 2048 * 512, part, 0, xfs.mib * kMiB);
    const auto log = run({"xfs_logprint", "-t", part});
    EXPECT_NE(log.out.find("state: <CLEAN>"), std::string::npos) << log.out << log.err;
    EXPECT_EQ((log.out + log.err).find("mismatch"), std::string::npos);
    const std::string sb = runTool({"xfs_db", "-r", "-c", "sb 1", "-c", "p uuid", "-c", "sb 0", "-c", "p uuid", part});
    const std::regex uuid("uuid = (\\S+)");
    std::vector<std::string> seen;
    for (auto it = std::sregex_iterator(sb.begin(), sb.end(), uuid); it != std::sregex_iterator(); ++it)
        seen.push_back((*it)[1].str());
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], seen[1]); // the secondary superblock follows the primary
}

TEST_F(FileSystems, UncleanFileSystemsAreRefusedUntouched)
{
    // ext4 not cleanly unmounted: its state without the valid bit.
    const std::string ext = diskWith(families()[4]);
    runTool({"debugfs", "-w", "-R", "ssv state 0", ext + "?offset=" + std::to_string(2048 * 512)});
    // XFS whose last log record is no unmount record.
    const Family& xfs = families().back();
    const std::string image = diskWith(xfs);
    const std::string part = dir.file("xfs.part");
    copyRange(image, 2048 * 512, part, 0, xfs.mib * kMiB);
    const std::string sb =
        runTool({"xfs_db", "-r", "-c", "sb 0", "-c", "p logstart agblocks agblklog blocksize", part});
    const auto field = [&](const std::string& name) {
        std::smatch found;
        EXPECT_TRUE(std::regex_search(sb, found, std::regex(name + " = (\\d+)")));
        return std::stoull(found[1].str());
    };
    const std::uint64_t logStart = field("logstart"), agBlockLog = field("agblklog");
    const std::uint64_t logBlock =
        (logStart >> agBlockLog) * field("agblocks") + (logStart & ((1ULL << agBlockLog) - 1));
    {
        std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(std::streamoff(2048 * 512 + logBlock * field("blocksize") + 512 + 9));
        file.put('\0'); // the unmount flag of the log's only operation
    }
    for (const auto& [target, message] :
         {std::pair{ext, "not cleanly unmounted"}, std::pair{image, "the log is dirty"}}) {
        const auto before = readAt(target, 0, 310 * kMiB);
        const auto result = run({POSTCLONE_BINARY, "--enable", "fs-ids", target});
        EXPECT_EQ(result.exitCode, 1) << result.err;
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        EXPECT_TRUE(readAt(target, 0, 310 * kMiB) == before) << target;
    }
}

TEST_F(FileSystems, MovedPartitionsGetTheirRecordedOffset)
{
    for (const auto& family : families()) {
        const std::string image = diskWith(family);
        // The copy moved the partition: its bytes now start at sector 4096.
        TestSupport::createImage(dir.file("moved.img"), (family.mib + 4) * kMiB);
        const std::string moved = dir.file("moved.img");
        copyRange(image, 2048 * 512, moved, 4096 * 512, family.mib * kMiB);
        partition(moved, 4096, family.mib * kMiB / 512, "83");
        const auto report = postclone({"--log-level", "1", "--enable", "fs-offset", moved});
        const bool records = family.name.rfind("ext", 0) != 0 && family.name != "btrfs" && family.name != "xfs";
        EXPECT_EQ(report["steps"][5]["word"], records ? "Ok" : "Nothing found") << family.name;
        if (family.name.rfind("fat", 0) == 0 || family.name == "ntfs") {
            EXPECT_EQ(readAt(moved, 4096 * 512 + 0x1C, 4), (std::vector<std::uint8_t>{0x00, 0x10, 0, 0}));
        }
        if (family.name == "exfat") {
            EXPECT_EQ(readAt(moved, 4096 * 512 + 0x40, 4), (std::vector<std::uint8_t>{0x00, 0x10, 0, 0}));
        }
        expectClean(family, moved, 4096);
    }
}

TEST_F(FileSystems, PartitionChsWritesTheGeometryIntoBootSectorsAndTheirBackups)
{
    for (const auto& family : families()) {
        if (family.name != "fat16" && family.name != "fat32" && family.name != "ntfs")
            continue;
        const std::string image = diskWith(family);
        auto before = readAt(image, 2048 * 512, 512);
        const auto report = postclone({"--enable", "part-chs", "--geometry", "1023,16,32", image});
        EXPECT_EQ(report["steps"][4]["word"], "Ok");
        const auto after = readAt(image, 2048 * 512, 512);
        before[0x18] = 0x20;
        before[0x19] = 0x00;
        before[0x1A] = 0x10;
        before[0x1B] = 0x00;
        EXPECT_EQ(after, before) << family.name;
        expectClean(family, image, 2048);
    }
}

TEST_F(FileSystems, MbrPartitionTypesFollowTheFileSystem)
{
    const std::string image = dir.file("types.img");
    TestSupport::createImage(image, 200 * kMiB);
    std::ofstream(dir.file("layout")) << "label: dos\nstart=2048, size=131072, type=83\n"
                                         "start=133120, size=131072, type=7\nstart=264192, size=131072, type=83\n";
    ASSERT_EQ(run({"sh", "-c", "sfdisk -q '" + image + "' < '" + dir.file("layout") + "'"}).exitCode, 0);
    const std::uint64_t starts[] = {2048, 133120, 264192};
    const Family* kinds[] = {&families()[3], &families()[1], &families()[4]}; // NTFS, FAT32, ext4
    for (int i = 0; i < 3; ++i) {
        const std::string part = dir.file(std::string("p").append(std::to_string(i)));
        TestSupport::createImage(part, 64 * kMiB);
        auto mkfs = kinds[i]->mkfs;
        mkfs.push_back(part);
        runTool(mkfs);
        copyRange(part, 0, image, starts[i] * 512, 64 * kMiB);
    }
    const auto report = postclone({"--enable", "part-type", image});
    EXPECT_EQ(report["steps"][6]["word"], "Ok");
    const std::string dump = runTool({"sfdisk", "--dump", image});
    EXPECT_NE(dump.find("start=        2048, size=      131072, type=7\n"), std::string::npos) << dump;
    EXPECT_NE(dump.find("start=      133120, size=      131072, type=c\n"), std::string::npos) << dump;
    EXPECT_NE(dump.find("start=      264192, size=      131072, type=83\n"), std::string::npos) << dump;

    // A GPT source for this MBR target: nothing is transferred.
    const std::string gpt = dir.file("gpt.img");
    TestSupport::createImage(gpt, 200 * kMiB);
    runTool({"sgdisk", "-n1:2048:+64M", "-t1:8300", gpt});
    const std::string part = dir.file("p0");
    copyRange(part, 0, gpt, 2048 * 512, 64 * kMiB); // NTFS in a Linux-typed GPT partition
    const std::string gptBefore = runTool({"sgdisk", "-p", gpt});
    EXPECT_EQ(postclone({"--enable", "part-type", gpt})["steps"][6]["word"], "Nothing found");
    EXPECT_EQ(runTool({"sgdisk", "-p", gpt}), gptBefore); // GPT types are left alone
    const auto refused =
        run({POSTCLONE_BINARY, "--log-level", "1", "--enable", "transfer-part-type", "--source", gpt, image});
    EXPECT_NE(refused.err.find("Source and target partitition table types differ"), std::string::npos);
    EXPECT_EQ(runTool({"sfdisk", "--dump", image}), dump);
}

TEST_F(FileSystems, DamagedStructuresAreNotTouched)
{
    struct Damage {
        std::size_t family;
        std::uint64_t offset; // within the partition
        std::vector<std::uint8_t> bytes;
        const char* reason;
        bool flip = false; // XORed into a random id, which a written value could equal
    };
    const std::vector<Damage> damages{
        {0, 0x0B, {0x03, 0x00}, "run fsck.fat first"},   // FAT16: 3 bytes per sector
        {0, 0x0D, {0x00}, "run fsck.fat first"},         // FAT16: no sectors per cluster
        {0, 0x10, {0x00}, "run fsck.fat first"},         // FAT16: no FATs
        {2, 0x64, {0xAA}, "run fsck.exfat first", true}, // exFAT: serial changed behind the checksum's back
        {3, 0x28, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00}, "run chkdsk"}, // NTFS: larger than the partition
        {3, 0x40, {0x7F}, "run chkdsk"},                                           // NTFS: impossible MFT records
        {4, 1024 + 0x04, {0xFF, 0xFF, 0xFF, 0x0F}, "run e2fsck"}, // ext4: more blocks than the partition
    };
    for (const auto& damage : damages) {
        const std::string image = diskWith(families()[damage.family]);
        {
            const std::uint64_t at = 2048 * 512 + damage.offset;
            std::vector<std::uint8_t> bytes = damage.bytes;
            if (damage.flip) {
                const auto made = readAt(image, at, bytes.size());
                for (std::size_t i = 0; i < bytes.size(); ++i)
                    bytes[i] ^= made[i];
            }
            std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
            file.seekp(std::streamoff(at));
            file.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
        }
        const auto before = readAt(image, 0, 70 * kMiB);
        const auto result =
            run({POSTCLONE_BINARY, "--enable", "fs-ids", "--enable", "fs-offset", "--enable", "part-chs", image});
        // Refused with the family's reason and the checker to run, and the run fails.
        EXPECT_EQ(result.exitCode, 1) << result.err;
        EXPECT_NE(result.err.find(damage.reason), std::string::npos) << result.err;
        EXPECT_TRUE(readAt(image, 0, 70 * kMiB) == before) << families()[damage.family].name;
    }
}

} // namespace
