// postclone fs on images made by mkfs, checked by tools we did not write: mtools and fsck.fat for
// FAT, debugfs and e2fsck for ext4, ntfscat and ntfsfix for NTFS.

#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <sstream>

namespace {

using TestSupport::run;
using TestSupport::runTool;

constexpr std::uint64_t kStart = 2048 * 512;

struct Family {
    std::string name;
    std::string type; // MBR type
    std::vector<std::string> mkfs;
};

class FsCommand : public testing::Test {
protected:
    TestSupport::TempDir dir;
    std::string image = dir.file("disk.img");
    std::string offset = std::to_string(kStart);

    void make(const Family& family)
    {
        TestSupport::createImage(image, 80 << 20);
        std::ofstream(dir.file("layout")) << "label: dos\nstart=2048, type=" << family.type << "\n";
        ASSERT_EQ(run({"sh", "-c", "sfdisk -q '" + image + "' < '" + dir.file("layout") + "'"}).exitCode, 0);
        if (family.name == "ntfs") { // mkntfs takes no offset: made apart, then copied in
            const std::string part = dir.file("ntfs.part");
            TestSupport::createImage(part, 70 << 20);
            runTool({"mkntfs", "-F", "-f", "-q", part});
            runTool({"dd", "if=" + part, "of=" + image, "bs=1M", "seek=1", "conv=notrunc", "status=none"});
            return;
        }
        auto mkfs = family.mkfs;
        mkfs.push_back(image);
        if (family.name == "ext4")
            mkfs.insert(mkfs.end() - 1, {"-E", "offset=" + offset});
        mkfs.push_back(family.name == "ext4" ? "70M" : "71680");
        const auto made = run(mkfs);
        ASSERT_EQ(made.exitCode, 0) << made.err;
    }

    static TestSupport::CommandResult fs(std::vector<std::string> args)
    {
        args.insert(args.begin(), {POSTCLONE_BINARY, "fs"});
        return run(args);
    }
    std::string local(const std::string& name, std::size_t bytes, std::string& content)
    {
        content.clear();
        for (std::size_t i = 0; i < bytes; ++i)
            content += char('a' + i * 7 % 26);
        std::ofstream(dir.file(name), std::ios::binary) << content;
        return dir.file(name);
    }
    // The file as the family's own tools read it.
    std::string readWithTools(const Family& family, const std::string& path)
    {
        if (family.name == "ext4")
            return runTool({"debugfs", "-R", "cat " + path, image + "?offset=" + offset});
        if (family.name == "ntfs")
            return runTool({"ntfscat", partition(), path});
        return runTool({"mtype", "-i", image + "@@" + offset, "::" + path});
    }
    // The partition cut out of the image, for tools that take no offset.
    std::string partition()
    {
        const std::string part = dir.file("part");
        runTool({"dd", "if=" + image, "of=" + part, "bs=1M", "skip=1", "count=70", "status=none"});
        return part;
    }
    // The bytes of the image at the partition sectors `postclone fs sectors` printed.
    std::string atSectors(const std::string& listing, std::size_t size)
    {
        std::istringstream lines(listing);
        std::string data;
        for (std::uint64_t start = 0, count = 0; lines >> start >> count;) {
            const auto bytes = TestSupport::readAt(image, kStart + start * 512, std::size_t(count * 512));
            data.append(bytes.begin(), bytes.end());
        }
        return data.substr(0, std::min(size, data.size()));
    }

    void expectClean(const Family& family)
    {
        if (family.name == "ext4") {
            EXPECT_EQ(run({"e2fsck", "-fn", image + "?offset=" + offset}).exitCode, 0);
            return;
        }
        if (family.name == "ntfs") {
            EXPECT_EQ(run({"ntfsfix", "-n", partition()}).exitCode, 0);
            return;
        }
        const auto check = run({"fsck.fat", "-n", partition()});
        EXPECT_EQ(check.exitCode, 0);
        EXPECT_EQ(std::count(check.out.begin(), check.out.end(), '\n'), 2) << check.out; // the summary only
    }
};

const std::vector<Family> kFamilies{
    {"fat16", "e", {"mkfs.fat", "-F", "16", "--offset", "2048"}},
    {"fat32", "c", {"mkfs.fat", "-F", "32", "-s", "1", "--offset", "2048"}},
    {"ext4", "83", {"mkfs.ext4", "-q", "-F"}},
    {"ntfs", "7", {}},
};

TEST_F(FsCommand, FilesGrowShrinkAndReadBackWithTheFamilysTools)
{
    setenv("MTOOLS_SKIP_CHECK", "1", 1);
    for (const auto& family : kFamilies) {
        make(family);
        ASSERT_EQ(fs({"mkdir", image, "1", "/etc"}).exitCode, 0) << family.name;
        std::string expected;
        for (std::size_t size : {300000u, 5000u, 70000u}) { // created over many clusters, shrunk, grown
            const auto put = fs({"put", image, "1", "/etc/a_long_file_name.conf", local("data", size, expected)});
            ASSERT_EQ(put.exitCode, 0) << family.name << put.err;
            EXPECT_EQ(readWithTools(family, "/etc/a_long_file_name.conf"), expected) << family.name << " " << size;
            EXPECT_EQ(fs({"cat", image, "1", "/etc/a_long_file_name.conf"}).out, expected);
        }
        EXPECT_EQ(atSectors(fs({"sectors", image, "1", "/etc/a_long_file_name.conf"}).out, expected.size()), expected)
            << family.name;
        for (int i = 0; i < 30; ++i) // enough names to need more directory space
            fs({"put", image, "1", "/etc/file_number_" + std::to_string(i), local("small", 10, expected)});
        EXPECT_NE(fs({"ls", image, "1", "/etc"}).out.find("a_long_file_name.conf\t70000"), std::string::npos);
        EXPECT_EQ(fs({"rm", image, "1", "/etc/file_number_3"}).exitCode, 0);
        EXPECT_EQ(fs({"cat", image, "1", "/etc/file_number_3"}).exitCode, 1);
        const auto small = fs({"sectors", image, "1", "/etc/file_number_4"});
        if (family.name == "ntfs") {
            EXPECT_EQ(small.exitCode, 1);
            EXPECT_NE(small.err.find("the file's data is kept inside its record"), std::string::npos) << small.err;
        } else {
            EXPECT_EQ(atSectors(small.out, 10), expected) << family.name;
        }
        expectClean(family);
    }
}

TEST_F(FsCommand, WindowsNamesAreFoundInAnyCaseExtNamesOnlyAsWritten)
{
    std::string content;
    for (const auto& family : kFamilies) {
        make(family);
        for (const char* directory : {"/Windows", "/Windows/System32", "/Windows/System32/config"})
            ASSERT_EQ(fs({"mkdir", image, "1", directory}).exitCode, 0);
        ASSERT_EQ(fs({"put", image, "1", "/Windows/System32/config/SYSTEM", local("hive", 100, content)}).exitCode, 0);
        const auto found = fs({"cat", image, "1", "/WINDOWS/system32/CONFIG/system"});
        EXPECT_EQ(found.exitCode, family.name == "ext4" ? 1 : 0) << family.name;
        if (family.name != "ext4") {
            EXPECT_EQ(found.out, content);
        }
    }
}

TEST_F(FsCommand, HibernatedNtfsIsOpenedReadOnlyAndSaysSo)
{
    make(kFamilies[3]);
    std::string content = "hibr" + std::string(8188, '\0'); // what Windows leaves when it hibernates
    std::ofstream(dir.file("hiberfil"), std::ios::binary) << content;
    ASSERT_EQ(fs({"put", image, "1", "/hiberfil.sys", dir.file("hiberfil")}).exitCode, 0);
    const auto refused = fs({"put", image, "1", "/x.txt", local("x", 10, content)});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("hibernated or was not shut down cleanly; it is open read-only"), std::string::npos);
    EXPECT_NE(refused.err.find("postclone: /x.txt: the file system is open read-only"), std::string::npos);
    EXPECT_NE(fs({"ls", image, "1", "/"}).out.find("hiberfil.sys\t8192"), std::string::npos);
}

TEST_F(FsCommand, MissingThingsAreExitOneAndUsageIsExitTwo)
{
    make(kFamilies[2]);
    const auto missing = fs({"cat", image, "1", "/config"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err, "postclone: /config: no such file or directory\n");
    EXPECT_EQ(fs({"ls", image, "2", "/"}).exitCode, 1);
    EXPECT_EQ(fs({"cat", image, "1"}).exitCode, 2);
    EXPECT_EQ(fs({"chmod", image, "1", "/x"}).exitCode, 2);
}

// Damage written into the first FAT16 data structures after a file of many clusters was put.
TEST_F(FsCommand, DamagedStructuresAreErrorsAndNothingIsWritten)
{
    struct Damage {
        const char* what;
        std::function<void(std::fstream&, std::uint64_t fat, std::uint64_t data)> apply;
        std::vector<std::string> command;
        std::string writePath;
    };
    std::string content;
    const std::vector<Damage> damages{
        {"a chain that loops",
         [](std::fstream& f, std::uint64_t fat, std::uint64_t) {
             // /D and /D/E hold clusters 2 and 3; the file starts at 4, and 5 now points back to it.
             f.seekp(std::streamoff(fat + 5 * 2));
             f.write("\x04\x00", 2);
         },
         {"cat", image, "1", "/D/big"},
         "/D/big"},
        {"a cluster out of range",
         [](std::fstream& f, std::uint64_t fat, std::uint64_t) {
             f.seekp(std::streamoff(fat + 5 * 2));
             f.write("\xF0\xFF", 2);
         },
         {"cat", image, "1", "/D/big"},
         "/D/big"},
        {"a directory that contains itself",
         [](std::fstream& f, std::uint64_t, std::uint64_t data) {
             // /D is cluster 2; its subdirectory E (the third entry) is pointed back at it.
             f.seekp(std::streamoff(data + 64 + 26));
             f.write("\x02\x00", 2);
         },
         {"ls", image, "1", "/D/E/E"},
         "/D/E/E/x"},
    };
    for (const auto& damage : damages) {
        make(kFamilies[0]);
        ASSERT_EQ(fs({"mkdir", image, "1", "/D"}).exitCode, 0);
        ASSERT_EQ(fs({"mkdir", image, "1", "/D/E"}).exitCode, 0);
        ASSERT_EQ(fs({"put", image, "1", "/D/big", local("big", 300000, content)}).exitCode, 0);
        const std::string boot = runTool({"dd", "if=" + image, "bs=512", "skip=2048", "count=1", "status=none"});
        const auto u16 = [&](std::size_t at) {
            return std::uint64_t(std::uint8_t(boot[at]) | std::uint8_t(boot[at + 1]) << 8);
        };
        const std::uint64_t fat = kStart + u16(0x0E) * 512;
        const std::uint64_t data = fat + 2 * u16(0x16) * 512 + u16(0x11) * 32;
        {
            std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
            damage.apply(file, fat, data);
        }
        const auto before = runTool({"sha256sum", image});
        auto command = damage.command;
        const auto result = fs(command);
        EXPECT_EQ(result.exitCode, 1) << damage.what;
        EXPECT_NE(result.err.find("damaged"), std::string::npos) << damage.what << ": " << result.err;
        const auto write = fs({"put", image, "1", damage.writePath, dir.file("big")});
        EXPECT_EQ(write.exitCode, 1) << damage.what;
        EXPECT_EQ(runTool({"sha256sum", image}), before) << damage.what;
    }

    // Damaged superblocks: the ext magic number, and an NTFS boot sector that claims more sectors
    // than the partition has.
    const std::pair<std::size_t, std::uint64_t> superblocks[] = {{2, kStart + 1024 + 0x38}, {3, kStart + 0x2D}};
    for (const auto& [family, at] : superblocks) {
        make(kFamilies[family]);
        {
            std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
            file.seekp(std::streamoff(at));
            file.put(family == 2 ? '\0' : '\x7F');
        }
        const auto before = runTool({"sha256sum", image});
        const auto result = fs({"put", image, "1", "/x", local("x", 10, content)});
        EXPECT_EQ(result.exitCode, 1) << kFamilies[family].name;
        EXPECT_NE(result.err.find("holds no file system"), std::string::npos) << result.err;
        EXPECT_EQ(runTool({"sha256sum", image}), before) << kFamilies[family].name;
    }
}

} // namespace
