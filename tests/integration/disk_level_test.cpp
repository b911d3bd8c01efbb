// Disk ids, MBR CHS and damaged tables on images made by sgdisk and sfdisk, checked with the
// same tools (and blkid), through postclone as a user runs it.

#include "tests/support/command.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <map>
#include <regex>

namespace {

using TestSupport::run;
using TestSupport::runTool;

std::string match(const std::string& text, const std::string& pattern)
{
    std::smatch found;
    return std::regex_search(text, found, std::regex(pattern)) ? found[1].str() : std::string();
}

nlohmann::json postcloneJson(std::vector<std::string> args)
{
    args.insert(args.begin(), {POSTCLONE_BINARY, "--json"});
    const auto result = run(args);
    EXPECT_LE(result.exitCode, 1) << result.err;
    return result.exitCode <= 1 ? nlohmann::json::parse(result.out) : nlohmann::json();
}

std::string word(const nlohmann::json& report, int slot)
{
    return report["steps"][slot]["word"];
}

// What sgdisk says about one partition, without the unique GUID.
struct GptPartition {
    std::string uniqueGuid, typeGuid, first, last, name;
};

GptPartition gptPartition(const std::string& image, int number)
{
    const std::string info = runTool({"sgdisk", "-i", std::to_string(number), image});
    return {match(info, "Partition unique GUID: (\\S+)"), match(info, "Partition GUID code: (\\S+)"),
            match(info, "First sector: (\\d+)"), match(info, "Last sector: (\\d+)"),
            match(info, "Partition name: '([^']*)'")};
}

std::string diskGuid(const std::string& image)
{
    return match(runTool({"sgdisk", "-p", image}), "Disk identifier \\(GUID\\): (\\S+)");
}

void expectSgdiskClean(const std::string& image)
{
    EXPECT_NE(runTool({"sgdisk", "-v", image}).find("No problems found"), std::string::npos) << image;
}

class DiskLevel : public testing::Test {
protected:
    TestSupport::TempDir dir;

    std::string gptImage(const std::string& name, std::uint64_t mib = 64)
    {
        const std::string image = dir.file(name);
        TestSupport::createImage(image, mib << 20);
        runTool({"sgdisk", "-n1:2048:+8M", "-t1:ef00", "-c1:EFI system", "-n2:0:+16M", "-t2:8300", "-c2:root",
                 "-n3:0:+8M", "-t3:0700", "-c3:data", "-n4:0:+4M", "-t4:8200", "-c4:swap", image});
        return image;
    }

    std::string mbrImage(const std::string& name)
    {
        const std::string image = dir.file(name);
        TestSupport::createImage(image, 64 << 20);
        const std::string layout = "label: dos\nlabel-id: 0x1a2b3c4d\n"
                                   "start=2048, size=16384, type=83\nstart=18432, size=16384, type=c\n"
                                   "start=36864, type=5\nstart=38912, size=8192, type=83\n"
                                   "start=49152, size=8192, type=7\n";
        std::ofstream(dir.file("layout")) << layout;
        const auto result = run({"sh", "-c", "sfdisk -q '" + image + "' < '" + dir.file("layout") + "'"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return image;
    }
};

TEST_F(DiskLevel, GptDiskAndPartitionIdsChangeAndNothingElse)
{
    const std::string image = gptImage("gpt.img");
    std::vector<GptPartition> before;
    for (int n = 1; n <= 4; ++n)
        before.push_back(gptPartition(image, n));
    std::string previousDisk = diskGuid(image);

    for (int round = 0; round < 2; ++round) {
        const auto report = postcloneJson({"--enable", "disk-ids", "--enable", "part-ids", image});
        EXPECT_EQ(word(report, 0), "Ok");
        EXPECT_EQ(word(report, 1), "Ok");
        expectSgdiskClean(image);

        const std::string disk = diskGuid(image);
        EXPECT_NE(disk, previousDisk);
        std::set<std::string> seen{disk};
        std::map<std::string, std::string> changes; // old -> new, from the report
        for (const auto& mapping : report["mappings"])
            changes[mapping["old"]] = mapping["new"];
        EXPECT_EQ(changes[previousDisk], disk);
        for (int n = 1; n <= 4; ++n) {
            const auto now = gptPartition(image, n);
            const auto& was = before[std::size_t(n - 1)];
            EXPECT_NE(now.uniqueGuid, was.uniqueGuid);
            EXPECT_EQ(changes[was.uniqueGuid], now.uniqueGuid);
            EXPECT_TRUE(seen.insert(now.uniqueGuid).second) << "duplicate " << now.uniqueGuid;
            EXPECT_EQ(std::tie(now.typeGuid, now.first, now.last, now.name),
                      std::tie(was.typeGuid, was.first, was.last, was.name));
            before[std::size_t(n - 1)] = now;
        }
        previousDisk = disk;
    }
}

TEST_F(DiskLevel, MbrSignatureAndDerivedPartitionIds)
{
    const std::string image = mbrImage("mbr.img");
    const std::string dumpBefore = runTool({"sfdisk", "--dump", image});
    const auto report = postcloneJson({"--enable", "disk-ids", image});
    EXPECT_EQ(word(report, 0), "Ok");

    const std::string dump = runTool({"sfdisk", "--dump", image});
    const std::string signature = match(dump, "label-id: 0x([0-9a-f]+)");
    EXPECT_NE(signature, "1a2b3c4d");
    EXPECT_EQ(match(runTool({"blkid", "-p", "-o", "export", image}), "PTUUID=(\\S+)"), signature);
    // Only the label-id line differs.
    EXPECT_EQ(std::regex_replace(dump, std::regex("label-id: \\S+"), ""),
              std::regex_replace(dumpBefore, std::regex("label-id: \\S+"), ""));

    std::set<std::string> pairs;
    for (const auto& mapping : report["mappings"])
        if (mapping["kind"] == 9)
            pairs.insert(mapping["old"].get<std::string>() + ">" + mapping["new"].get<std::string>());
    std::set<std::string> expected;
    for (const char* number : {"01", "02", "05", "06"})
        expected.insert(std::string("1a2b3c4d-") + number + ">" + signature + "-" + number);
    EXPECT_EQ(pairs, expected);
}

TEST_F(DiskLevel, MbrChsFollowsTheGivenGeometry)
{
    // 1 GiB, sparse: the last logical partition ends beyond cylinder 1023 of 16 heads x 63 sectors.
    const std::string image = dir.file("chs.img");
    TestSupport::createImage(image, 1ULL << 30);
    std::ofstream(dir.file("layout")) << "label: dos\nstart=2048, size=100000, type=83\nstart=200000, type=5\n"
                                         "start=202048, size=100000, type=83\nstart=1000000, size=100000, type=7\n";
    ASSERT_EQ(run({"sh", "-c", "sfdisk -q '" + image + "' < '" + dir.file("layout") + "'"}).exitCode, 0);

    const auto report = postcloneJson({"--enable", "mbr-chs", "--geometry", "1023,16,63", image});
    EXPECT_EQ(word(report, 3), "Ok");
    const auto chsAt = [&](std::uint64_t sector, int slot, bool end) {
        std::ifstream file(image, std::ios::binary);
        file.seekg(std::streamoff(sector * 512 + 0x1BE + 16 * std::size_t(slot) + (end ? 5 : 1)));
        std::vector<std::uint8_t> bytes(3);
        file.read(reinterpret_cast<char*>(bytes.data()), 3);
        return bytes;
    };
    const auto expected = [](std::uint64_t lba) {
        const std::uint64_t c = lba / (16 * 63), h = lba / 63 % 16, s = lba % 63 + 1;
        if (c > 1023)
            return std::vector<std::uint8_t>{0xFE, 0xFF, 0xFF};
        return std::vector<std::uint8_t>{std::uint8_t(h), std::uint8_t(s | (c >> 8) << 6), std::uint8_t(c)};
    };
    EXPECT_EQ(chsAt(0, 0, false), expected(2048));
    EXPECT_EQ(chsAt(0, 0, true), expected(2048 + 100000 - 1));
    // Logical partitions: their entries live in the extended boot records.
    const std::uint64_t firstEbr = 200000;
    EXPECT_EQ(chsAt(firstEbr, 0, false), expected(202048));
    EXPECT_EQ(chsAt(firstEbr, 0, true), expected(202048 + 100000 - 1));
    const std::string dump = runTool({"sfdisk", "--dump", image});
    const std::uint64_t secondEbr = std::stoull(match(dump, "start=\\s*(\\d+), size=\\s*100000, type=7")) - 2048;
    EXPECT_EQ(chsAt(secondEbr, 0, false), (std::vector<std::uint8_t>{0xFE, 0xFF, 0xFF}));
    EXPECT_EQ(chsAt(secondEbr, 0, true), (std::vector<std::uint8_t>{0xFE, 0xFF, 0xFF}));
    EXPECT_NE(dump.find("start=     1000000, size=      100000, type=7"), std::string::npos) << dump;
}

TEST_F(DiskLevel, GptCopiedToALargerDiskMovesItsBackupToTheEnd)
{
    const std::string small = gptImage("small.img", 48);
    const std::string large = dir.file("large.img");
    std::ofstream(large, std::ios::binary) << TestSupport::readFile(small);
    std::filesystem::resize_file(large, 96 << 20);

    EXPECT_EQ(word(postcloneJson({"--enable", "disk-ids", large}), 0), "Ok");
    expectSgdiskClean(large);
    const std::string bytes = TestSupport::readFile(large);
    EXPECT_EQ(bytes.substr(bytes.size() - 512, 8), "EFI PART");
    EXPECT_NE(runTool({"sgdisk", "-p", large}).find("last usable sector is 196574"), std::string::npos);
}

TEST_F(DiskLevel, DamagedPrimaryGptIsReadFromTheBackupAndRepaired)
{
    const std::string image = gptImage("damaged.img");
    const std::string partitionBefore = gptPartition(image, 2).uniqueGuid;
    {
        std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(512 + 56); // inside the disk GUID: the header CRC no longer matches
        file.put('\x5A');
    }
    EXPECT_EQ(word(postcloneJson({"--enable", "disk-ids", image}), 0), "Ok");
    expectSgdiskClean(image);
    EXPECT_EQ(gptPartition(image, 2).uniqueGuid, partitionBefore);
}

TEST_F(DiskLevel, BadTablesAreReportedAndNeverWritten)
{
    std::vector<std::string> images;
    images.push_back(dir.file("empty.img"));
    TestSupport::createImage(images.back(), 0);

    images.push_back(gptImage("truncated.img"));
    std::filesystem::resize_file(images.back(), 20 << 20); // partitions 2-4 now end past the disk

    images.push_back(gptImage("both-crcs.img"));
    {
        std::fstream file(images.back(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(512 + 16);
        file.put('\x01');
        file.seekp((64 << 20) - 512 + 16);
        file.put('\x01');
    }

    images.push_back(mbrImage("loop.img"));
    {
        // The second extended boot record (sector 47104) links to itself.
        std::fstream file(images.back(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(47104 * 512 + 0x1BE + 16 + 4);
        file.put('\x05');
        file.seekp(47104 * 512 + 0x1BE + 16 + 8);
        file.write("\x00\x28\x00\x00", 4); // 10240 sectors after the extended partition's start
    }

    images.push_back(mbrImage("past-end.img"));
    {
        std::fstream file(images.back(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(0x1BE + 16 + 12); // partition 2 grows to 4 GiB
        file.write("\x00\x00\x80\x00", 4);
    }

    for (const auto& image : images) {
        const std::string before = TestSupport::readFile(image);
        std::vector<std::string> args{POSTCLONE_BINARY, "--enable", "disk-ids", "--enable",     "part-ids",
                                      "--enable",       "mbr-chs",  "--enable", "media-direct", image};
        const auto result = run(args);
        EXPECT_NE(result.err.find("Could not get Partition manager"), std::string::npos) << image << result.err;
        EXPECT_EQ(TestSupport::readFile(image), before) << image;
        // An empty disk has no table to refuse; a damaged table is refused, reported, and fails the run.
        const bool empty = image == images.front();
        EXPECT_EQ(result.exitCode, empty ? 0 : 1) << image << result.err;
        EXPECT_EQ(result.out.find("refused (nothing written):\n  " + image + ": partition table: "),
                  empty ? std::string::npos : result.out.find("refused"))
            << result.out;
    }
}

} // namespace
