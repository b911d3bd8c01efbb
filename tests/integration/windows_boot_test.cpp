// Windows boot on images made by sgdisk, sfdisk, mkfs.fat and mkntfs, run through postclone: the
// real boot configuration store on an EFI partition after new disk and partition GUIDs (read back
// with hivexget), a new store for two Windows, a GPT migration's EFI partition, the drive letters
// of a copy whose partition moved, and a disk without EFI partition. fsck.fat, sgdisk and
// hivexregedit check what was written.

#include "tests/support/command.h"
#include "tests/support/windows_tree.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>

namespace {

using TestSupport::run;
using TestSupport::runTool;
using Bytes = std::string;

constexpr std::uint64_t kMiB = 1 << 20;

struct PartitionSpec {
    unsigned mebibytes;
    std::string typeCode; // sgdisk's: ef00, 0700, 2700
    std::string guid;     // empty: sgdisk draws one
    std::string mkfs;     // "fat", "ntfs" or empty
};

// The bytes of a GUID as a store holds them, from its text.
Bytes guidBytes(const std::string& text)
{
    static const int kOrder[16] = {6, 4, 2, 0, 11, 9, 16, 14, 19, 21, 24, 26, 28, 30, 32, 34};
    Bytes bytes;
    for (const int at : kOrder)
        bytes.push_back(char(std::stoi(text.substr(std::size_t(at), 2), nullptr, 16)));
    return bytes;
}

std::size_t countOf(const Bytes& data, const Bytes& needle)
{
    std::size_t count = 0;
    for (auto at = data.begin(); (at = std::search(at, data.end(), needle.begin(), needle.end())) != data.end(); ++at)
        ++count;
    return count;
}

class WindowsBoot : public ::testing::Test {
protected:
    std::string makeGpt(const std::string& name, const std::string& diskGuid, const std::vector<PartitionSpec>& parts)
    {
        const std::string image = dir.file(name);
        unsigned total = 2;
        for (const auto& part : parts)
            total += part.mebibytes;
        TestSupport::createImage(image, total * kMiB);
        std::vector<std::string> args{"sgdisk", "-o"};
        if (!diskGuid.empty())
            args.insert(args.end(), {"-U", diskGuid});
        for (std::size_t i = 0; i < parts.size(); ++i) {
            const std::string n = std::to_string(i + 1);
            args.insert(args.end(), {"-n", n + ":0:+" + std::to_string(parts[i].mebibytes) + "M", "-t",
                                     n + ":" + parts[i].typeCode});
            if (!parts[i].guid.empty())
                args.insert(args.end(), {"-u", n + ":" + parts[i].guid});
        }
        args.push_back(image);
        runTool(args);
        unsigned start = 1;
        for (const auto& part : parts) {
            if (!part.mkfs.empty()) {
                const std::string file = dir.file("part");
                TestSupport::createImage(file, part.mebibytes * kMiB);
                runTool(part.mkfs == "fat" ? std::vector<std::string>{"mkfs.fat", "-F", "32", "-n", "ESP", file}
                                           : std::vector<std::string>{"mkntfs", "-F", "-f", "-q", file});
                runTool({"dd", "if=" + file, "of=" + image, "bs=1M", "seek=" + std::to_string(start), "conv=notrunc",
                         "status=none"});
            }
            start += part.mebibytes;
        }
        return image;
    }
    void fs(const std::string& image, int partition, const std::string& verb, const std::string& path,
            const std::string& local = "")
    {
        std::vector<std::string> args{POSTCLONE_BINARY, "fs", verb, image, std::to_string(partition), path};
        if (!local.empty())
            args.push_back(local);
        const auto result = run(args);
        ASSERT_EQ(result.exitCode, 0) << verb << " " << path << ": " << result.err;
    }
    // Each folder on the way that this test has not made yet.
    void mkdirs(const std::string& image, int partition, const std::string& path)
    {
        for (std::size_t at = 1; at <= path.size(); ++at)
            if ((at == path.size() || path[at] == '/') &&
                made.insert(image + ":" + std::to_string(partition) + path.substr(0, at)).second)
                fs(image, partition, "mkdir", path.substr(0, at));
    }
    std::string localFile(const std::string& name, const std::string& bytes)
    {
        std::ofstream(dir.file(name), std::ios::binary) << bytes;
        return dir.file(name);
    }
    // A Windows of that version with its SOFTWARE hive, BCD-Template and boot files.
    void installWindows(const std::string& image, int partition, const std::string& product, unsigned major,
                        unsigned minor)
    {
        mkdirs(image, partition, "/Windows/System32/config");
        mkdirs(image, partition, "/Windows/Boot/EFI/en-US");
        mkdirs(image, partition, "/Windows/Boot/Fonts");
        const std::string software = dir.file("SOFTWARE" + std::to_string(partition));
        TestSupport::writeSoftwareHive(software, product, major, minor, major >= 10 ? "19045" : "7601");
        fs(image, partition, "put", "/Windows/System32/config/SOFTWARE", software);
        const std::string templ = dir.file("BCD-Template" + std::to_string(partition));
        TestSupport::unpackHive(major >= 10 ? "BCD-Template-Win11" : "BCD-Template-Win10", templ);
        fs(image, partition, "put", "/Windows/System32/config/BCD-Template", templ);
        fs(image, partition, "put", "/Windows/Boot/EFI/bootmgfw.efi",
           localFile("loader", "MZ boot manager " + product));
        fs(image, partition, "put", "/Windows/Boot/EFI/en-US/bootmgfw.efi.mui", localFile("mui", "MUI"));
        fs(image, partition, "put", "/Windows/Boot/Fonts/segmono_boot.ttf", localFile("font", "TTF"));
    }
    std::string store(const std::string& image)
    {
        const auto result = run({POSTCLONE_BINARY, "fs", "cat", image, "1", "/EFI/Microsoft/Boot/BCD"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        std::ofstream(dir.file("BCD.out"), std::ios::binary) << result.out;
        return dir.file("BCD.out");
    }
    nlohmann::json show(const std::string& image)
    {
        const auto result = run({POSTCLONE_BINARY, "bcd", "show", "--json", image});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return nlohmann::json::parse(result.out);
    }
    // Partition n of a GPT image as a file of its own, for the tools that read a bare volume.
    void expectFatClean(const std::string& image, unsigned startMiB, unsigned mebibytes)
    {
        const std::string part = dir.file("esp.check");
        runTool({"dd", "if=" + image, "of=" + part, "bs=1M", "skip=" + std::to_string(startMiB),
                 "count=" + std::to_string(mebibytes), "status=none"});
        const auto check = run({"fsck.fat", "-n", part});
        EXPECT_EQ(check.exitCode, 0) << check.out << check.err;
    }
    std::string diskGuid(const std::string& image)
    {
        const auto out = runTool({"sgdisk", "-p", image});
        const auto at = out.find("Disk identifier (GUID): ");
        return out.substr(at + 24, 36);
    }
    std::string partitionGuid(const std::string& image, int partition)
    {
        const auto out = runTool({"sgdisk", "-i", std::to_string(partition), image});
        const auto at = out.find("Partition unique GUID: ");
        return out.substr(at + 23, 36);
    }

    TestSupport::TempDir dir;
    std::set<std::string> made;
};

TEST_F(WindowsBoot, TheRealStoreFollowsNewDiskAndPartitionGuidsByteForByte)
{
    const std::string oldDisk = "0B2394A9-095E-487D-8D48-719ECD4D78CA";
    const std::vector<std::string> oldParts{"36BE3955-63BF-4068-A6AB-00195CCA3A22",
                                            "8E0F2C38-E4EA-47BA-B7FC-9D8C74DCCF0B",
                                            "6CDFCD69-DE75-4490-8F99-5A84BF264917"};
    const std::string image =
        makeGpt("disk.img", oldDisk,
                {{40, "ef00", oldParts[0], "fat"}, {60, "0700", oldParts[1], "ntfs"}, {20, "2700", oldParts[2], ""}});
    mkdirs(image, 1, "/EFI/Microsoft/Boot");
    const std::string original = dir.file("BCD");
    TestSupport::unpackHive("BCD", original);
    fs(image, 1, "put", "/EFI/Microsoft/Boot/BCD", original);
    const auto before = show(image);

    const auto result =
        run({POSTCLONE_BINARY, "--enable", "disk-ids", "--enable", "part-ids", "--enable", "bcd-adjust", image});
    ASSERT_EQ(result.exitCode, 0) << result.out << result.err;

    const std::string newDisk = diskGuid(image);
    ASSERT_NE(newDisk, oldDisk);
    const std::string stored = store(image);
    const auto after = show(image);
    ASSERT_EQ(after["stores"][0]["objects"].size(), before["stores"][0]["objects"].size());
    std::size_t devices = 0;
    for (std::size_t i = 0; i < before["stores"][0]["objects"].size(); ++i) {
        const auto& object = after["stores"][0]["objects"][i];
        EXPECT_EQ(object["guid"], before["stores"][0]["objects"][i]["guid"]);
        for (const auto& element : object["elements"]) {
            if (!element["value"].is_object())
                continue;
            const std::string key =
                "\\Objects\\" + object["guid"].get<std::string>() + "\\Elements\\" + element["id"].get<std::string>();
            const Bytes now = runTool({"hivexget", stored, key, "Element"});
            const Bytes old = runTool({"hivexget", original, key, "Element"});
            // Every old id gone, each new one where its old one stood, every other byte kept.
            Bytes expected = old;
            const auto replace = [&](const Bytes& from, const Bytes& to) {
                for (auto at = expected.begin();
                     (at = std::search(at, expected.end(), from.begin(), from.end())) != expected.end();)
                    at = std::copy(to.begin(), to.end(), at);
            };
            replace(guidBytes(oldDisk), guidBytes(newDisk));
            for (int p = 0; p < 3; ++p)
                replace(guidBytes(oldParts[std::size_t(p)]), guidBytes(partitionGuid(image, p + 1)));
            EXPECT_EQ(now, expected) << key;
            EXPECT_EQ(countOf(now, guidBytes(oldDisk)), 0u) << key;
            if (countOf(now, guidBytes(newDisk)) > 0) {
                ++devices;
                EXPECT_FALSE(element["value"]["target_partition"].is_null()) << key;
            }
        }
    }
    EXPECT_EQ(devices, 9u) << "bootmgr, memdiag, resume, two loaders (one a ramdisk) and the recovery options";
    EXPECT_EQ(run({"sgdisk", "-v", image}).exitCode, 0);
    expectFatClean(image, 1, 40);
}

TEST_F(WindowsBoot, ANewStoreAndAGptMigrationFillTheEfiPartitionForBothWindows)
{
    const std::string image =
        makeGpt("disk.img", "", {{40, "ef00", "", "fat"}, {60, "0700", "", "ntfs"}, {60, "0700", "", "ntfs"}});
    installWindows(image, 2, "Windows 7 Professional", 6, 1);
    installWindows(image, 3, "Windows 10 Pro", 10, 0);
    mkdirs(image, 1, "/EFI/Microsoft/Boot");
    runTool({"cp", image, dir.file("migrated.img")});
    made.clear();

    auto result = run({POSTCLONE_BINARY, "--enable", "bcd-create", image});
    ASSERT_EQ(result.exitCode, 0) << result.out << result.err;
    const auto listing = show(image);
    ASSERT_EQ(listing["stores"].size(), 1u);
    std::map<std::string, nlohmann::json> objects;
    for (const auto& object : listing["stores"][0]["objects"])
        objects[object["guid"]] = object;
    const auto element = [&](const std::string& object, const std::string& id) {
        for (const auto& each : objects.at(object)["elements"])
            if (each["id"] == id)
                return each["value"];
        return nlohmann::json();
    };
    const std::string manager = "{9dea862c-5cdd-4e70-acc1-f32b344d4795}";
    const auto order = element(manager, "24000001");
    ASSERT_EQ(order.size(), 2u);
    EXPECT_EQ(element(order[0], "12000004"), "Windows 7 Professional");
    EXPECT_EQ(element(order[0], "21000001")["target_partition"], 2);
    EXPECT_EQ(element(order[1], "21000001")["target_partition"], 3);
    EXPECT_EQ(element(manager, "23000003"), order[1]) << "10.0 is the default";
    EXPECT_EQ(element(manager, "11000001")["target_partition"], 1);
    EXPECT_EQ(element(element(manager, "23000006").get<std::string>(), "11000001")["target_partition"], 3);
    EXPECT_EQ(objects.count("{b012b84d-c47c-4ed5-b722-c0c42163e569}"), 0u) << "the template entry is removed";
    EXPECT_EQ(run({"hivexregedit", "--export", store(image), "\\"}).exitCode, 0);
    expectFatClean(image, 1, 40);

    const std::string migrated = dir.file("migrated.img");
    result = run({POSTCLONE_BINARY, "--enable", "gpt-migration", migrated});
    ASSERT_EQ(result.exitCode, 0) << result.out << result.err;
    const auto boot = run({POSTCLONE_BINARY, "fs", "ls", migrated, "1", "/EFI/Microsoft/Boot"}).out;
    for (const char* name : {"bootmgfw.efi", "BCD", "Fonts", "en-US"})
        EXPECT_NE(boot.find(name), std::string::npos) << name << " in " << boot;
    EXPECT_EQ(run({POSTCLONE_BINARY, "fs", "cat", migrated, "1", "/EFI/Boot/bootx64.efi"}).out,
              "MZ boot manager Windows 10 Pro")
        << "the newest Windows' boot manager";
    EXPECT_EQ(show(migrated)["stores"][0]["objects"].size(), listing["stores"][0]["objects"].size());
    expectFatClean(migrated, 1, 40);
}

TEST_F(WindowsBoot, DriveLettersFollowANewSignatureAndAPartitionMovedFrom63To2048)
{
    // The source: Windows at sector 63 of a disk with the fixture's signature; the copy at 2048.
    const auto mbr = [&](const std::string& name, unsigned start) {
        const std::string image = dir.file(name);
        TestSupport::createImage(image, 64 * kMiB);
        std::ofstream(dir.file("layout"))
            << "label: dos\nlabel-id: 0x5cbea03e\nstart=" << start << ", size=100000, type=7\n";
        runTool({"sh", "-c", "sfdisk -q '" + image + "' < '" + dir.file("layout") + "'"});
        const std::string part = dir.file("ntfs");
        TestSupport::createImage(part, 100000 * 512);
        runTool({"mkntfs", "-F", "-f", "-q", "-p", std::to_string(start), part});
        runTool({"dd", "if=" + part, "of=" + image, "bs=512", "seek=" + std::to_string(start), "conv=notrunc",
                 "status=none"});
        return image;
    };
    const std::string source = mbr("source.img", 63);
    const std::string target = mbr("target.img", 2048);
    const std::string hive = dir.file("SYSTEM");
    TestSupport::unpackHive("SYSTEM", hive);
    std::ofstream(dir.file("system.hsh"))
        << "cd MountedDevices\nsetval 2\n\\DosDevices\\C:\nhex:3:3e,a0,be,5c,00,7e,00,00,00,00,00,00\n"
           "\\DosDevices\\F:\nhex:3:dd,cc,bb,aa,00,7e,00,00,00,00,00,00\ncommit\n";
    runTool({"sh", "-c", "chmod u+w '" + hive + "' && hivexsh -w '" + hive + "' < '" + dir.file("system.hsh") + "'"});
    mkdirs(target, 1, "/Windows/System32/config");
    fs(target, 1, "put", "/Windows/System32/config/SYSTEM", hive);

    const auto result = run({POSTCLONE_BINARY, "--source", source, "--enable", "disk-ids", "--enable",
                             "mounted-devices", "--log-level", "1", target});
    ASSERT_EQ(result.exitCode, 0) << result.out << result.err;
    const auto written = run({POSTCLONE_BINARY, "fs", "cat", target, "1", "/Windows/System32/config/SYSTEM"});
    std::ofstream(dir.file("SYSTEM.out"), std::ios::binary) << written.out;
    const Bytes signature = runTool({"sh", "-c", "dd if='" + target + "' bs=1 skip=440 count=4 status=none"});
    ASSERT_NE(signature, Bytes("\x3e\xa0\xbe\x5c", 4));
    EXPECT_EQ(runTool({"hivexget", dir.file("SYSTEM.out"), "\\MountedDevices", "\\DosDevices\\C:"}),
              signature + Bytes("\x00\x00\x10\x00\x00\x00\x00\x00", 8));
    EXPECT_EQ(runTool({"hivexget", dir.file("SYSTEM.out"), "\\MountedDevices", "\\DosDevices\\F:"}),
              Bytes("\xdd\xcc\xbb\xaa\x00\x7e\x00\x00\x00\x00\x00\x00", 12))
        << "another disk's record";
}

TEST_F(WindowsBoot, ADiskWithoutEfiPartitionFailsBcdCreation)
{
    const std::string image = makeGpt("disk.img", "", {{60, "0700", "", "ntfs"}});
    installWindows(image, 1, "Windows 10 Pro", 10, 0);
    const auto result = run({POSTCLONE_BINARY, "--enable", "bcd-create", "--json", image});
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    EXPECT_EQ(nlohmann::json::parse(result.out)["steps"][11]["word"], "FAILED");
}

} // namespace
