// Boot loaders whose copy lies on other sectors than the original: each image is made by the boot
// loader's own tools, copied the way imaging software copies (file by file, or partitions moved
// sector by sector), shown not to boot, run through postclone, and booted under qemu, where only
// the boot loader's own output on the serial line counts.

#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <unistd.h>

namespace {

using TestSupport::run;
using TestSupport::runTool;

constexpr const char* kMarker = "postclonemark";
constexpr const char* kSyslinuxModules = "/usr/lib/syslinux/modules/bios";
constexpr const char* kGrubModules = "/usr/lib/grub/i386-pc";

void writeAt(const std::string& path, std::uint64_t offset, const std::vector<std::uint8_t>& bytes)
{
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(std::streamoff(offset));
    file.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    ASSERT_TRUE(file.good()) << path;
}

void writeText(const std::string& path, const std::string& text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
}

void putU64(std::vector<std::uint8_t>& bytes, std::size_t offset, std::uint64_t value)
{
    for (int i = 0; i < 8; ++i)
        bytes[offset + std::size_t(i)] = std::uint8_t(value >> (8 * i));
}

void putU16(std::vector<std::uint8_t>& bytes, std::size_t offset, std::uint16_t value)
{
    bytes[offset] = std::uint8_t(value);
    bytes[offset + 1] = std::uint8_t(value >> 8);
}

void copySectors(const std::string& from, std::uint64_t fromSector, const std::string& to, std::uint64_t toSector,
                 std::uint64_t sectors)
{
    runTool({"dd", "if=" + from, "of=" + to, "bs=512", "skip=" + std::to_string(fromSector),
             "seek=" + std::to_string(toSector), "count=" + std::to_string(sectors), "conv=notrunc", "status=none"});
}

// What the machine prints on its serial line before it powers off or the time is up.
std::string bootOutput(const std::string& image, int seconds)
{
    return run({"timeout", std::to_string(seconds), "qemu-system-x86_64", "-accel", "tcg", "-m", "128", "-display",
                "none", "-monitor", "none", "-no-reboot", "-drive", "file=" + image + ",format=raw", "-serial",
                "stdio"})
        .out;
}

// A disk that does not boot hangs or loops; a few seconds tell.
bool boots(const std::string& image, int seconds = 60)
{
    return bootOutput(image, seconds).find(kMarker) != std::string::npos;
}

std::string postclone(const std::vector<std::string>& arguments)
{
    std::vector<std::string> argv{POSTCLONE_BINARY, "--log-level", "1"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const auto result = run(argv);
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    return result.out + result.err;
}

// ---------------------------------------------------------------------------------------------
// syslinux and extlinux

std::string syslinuxConfig()
{
    return std::string("SERIAL 0 115200\nDEFAULT ") + kMarker + "\nONERROR poweroff.c32\n";
}

// An MBR disk with syslinux' MBR code and one active partition at 2048 holding partitionImage.
void makeSyslinuxDisk(const std::string& disk, const std::string& partitionImage, const char* type)
{
    const auto sectors = std::filesystem::file_size(partitionImage) / 512;
    TestSupport::createImage(disk, (2048 + sectors) * 512);
    const auto table = run(
        {"sh", "-c",
         "printf 'label: dos\\nstart=2048, type=" + std::string(type) + ", bootable\\n' | sfdisk -q '" + disk + "'"});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    runTool(
        {"dd", "if=/usr/lib/syslinux/mbr/mbr.bin", "of=" + disk, "bs=440", "count=1", "conv=notrunc", "status=none"});
    copySectors(partitionImage, 0, disk, 2048, sectors);
}

// How many runs of clusters mtools lists for a file: "<2-5> <9-9> ...".
std::size_t fatRuns(const std::string& image, const std::string& path)
{
    const std::string chain = runTool({"mshowfat", "-i", image, "::" + path});
    return std::size_t(std::count(chain.begin(), chain.end(), '<'));
}

struct FatKind {
    const char* name;
    const char* bits;
    const char* size;
    const char* partitionType;
    std::size_t bootCode; // where the boot code starts after the parameter block
};

class SyslinuxOnFat : public testing::TestWithParam<FatKind> {};

TEST_P(SyslinuxOnFat, AFileByFileCopyBootsOnlyAfterPostclone)
{
    const FatKind& kind = GetParam();
    TestSupport::TempDir dir;
    const std::string source = dir.file("source.img"), target = dir.file("target.img");
    // The original: installed by syslinux itself.
    TestSupport::createImage(source, std::stoull(kind.size) << 20);
    runTool({"mkfs.fat", "-F", kind.bits, "-s", "1", "-n", "SRC", source});
    runTool({"syslinux", "--install", source});
    writeText(dir.file("syslinux.cfg"), syslinuxConfig());
    runTool({"mcopy", "-D", "o", "-i", source, dir.file("syslinux.cfg"),
             std::string(kSyslinuxModules) + "/libcom32.c32", std::string(kSyslinuxModules) + "/poweroff.c32", "::/"});

    // The copy: a new file system whose free space is full of holes, the files copied into it,
    // and the boot code put back over the new parameter block.
    TestSupport::createImage(target, std::stoull(kind.size) << 20);
    runTool({"mkfs.fat", "-F", kind.bits, "-s", "1", "-n", "DST", target});
    writeText(dir.file("one-sector"), std::string(512, 'x'));
    for (int i = 0; i < 64; ++i)
        runTool({"mcopy", "-i", target, dir.file("one-sector"), "::/f" + std::to_string(i)});
    for (int i = 0; i < 64; i += 2)
        runTool({"mdel", "-i", target, "::/f" + std::to_string(i)});
    if (std::string(kind.bits) == "32")
        writeAt(target, 512 + 0x1EC, {0xFF, 0xFF, 0xFF, 0xFF}); // no next-free hint: the holes come first
    for (const char* name : {"ldlinux.sys", "ldlinux.c32", "syslinux.cfg", "libcom32.c32", "poweroff.c32"}) {
        runTool({"mcopy", "-i", source, std::string("::/") + name, dir.file(name)});
        runTool({"mcopy", "-i", target, dir.file(name), std::string("::/") + name});
    }
    runTool({"mattrib", "-i", target, "+r", "+h", "+s", "::/ldlinux.sys"});
    EXPECT_GT(fatRuns(target, "/ldlinux.sys"), 8u);
    auto boot = TestSupport::readAt(source, 0, 512);
    const auto parameters = TestSupport::readAt(target, 0, kind.bootCode);
    std::copy(parameters.begin() + 11, parameters.end(), boot.begin() + 11);
    writeAt(target, 0, boot);
    if (std::string(kind.bits) == "32")
        writeAt(target, 6 * 512, boot); // the backup boot sector is compared by checkers

    const std::string disk = dir.file("disk.img");
    makeSyslinuxDisk(disk, target, kind.partitionType);
    EXPECT_FALSE(boots(disk, 10)) << "the copy booted before postclone";

    const std::string log = postclone({"--enable", "syslinux", disk});
    EXPECT_NE(log.find("Adjusting Syslinux BPB loader"), std::string::npos) << log;
    EXPECT_NE(log.find("Syslinux sector list adjustment: Ok"), std::string::npos) << log;
    EXPECT_TRUE(boots(disk)) << bootOutput(disk, 60);

    copySectors(disk, 2048, target, 0, std::filesystem::file_size(target) / 512);
    EXPECT_EQ(run({"fsck.fat", "-n", target}).exitCode, 0) << run({"fsck.fat", "-n", target}).out;
}

INSTANTIATE_TEST_SUITE_P(Families, SyslinuxOnFat,
                         testing::Values(FatKind{"fat16", "16", "24", "6", 0x3E},
                                         FatKind{"fat32", "32", "40", "c", 0x5A}),
                         [](const auto& param) { return std::string(param.param.name); });

// Mounts an image file for as long as it lives; empty when this machine does not allow it.
class LoopMount {
public:
    LoopMount(const std::string& image, const std::string& folder) : folder_(folder)
    {
        std::filesystem::create_directories(folder);
        if (::geteuid() == 0 && run({"mount", "-o", "loop", image, folder}).exitCode == 0)
            mounted_ = true;
    }
    ~LoopMount() { release(); }
    void release()
    {
        if (mounted_)
            run({"umount", folder_});
        mounted_ = false;
    }
    bool mounted() const { return mounted_; }

private:
    std::string folder_;
    bool mounted_ = false;
};

TEST(ExtlinuxOnExt4, AFileByFileCopyBootsOnlyAfterPostclone)
{
    TestSupport::TempDir dir;
    const std::string source = dir.file("source.img"), target = dir.file("target.img");
    TestSupport::createImage(source, 32 << 20);
    runTool({"mkfs.ext4", "-q", "-F", source});
    const std::string tree = dir.file("tree");
    {
        LoopMount mount(source, dir.file("mnt"));
        if (!mount.mounted())
            GTEST_SKIP() << "extlinux installs into a mounted file system (needs root and loop devices)";
        const std::string folder = dir.file("mnt") + "/boot/syslinux";
        std::filesystem::create_directories(folder);
        runTool({"extlinux", "--install", folder});
        writeText(folder + "/extlinux.conf", syslinuxConfig());
        for (const char* module : {"libcom32.c32", "poweroff.c32"})
            std::filesystem::copy_file(std::string(kSyslinuxModules) + "/" + module, folder + "/" + module);
        std::filesystem::create_directories(tree);
        runTool({"cp", "-a", dir.file("mnt") + "/boot", tree + "/"});
    }
    // The copy: mke2fs fills a new file system from the files; the boot sector comes along.
    TestSupport::createImage(target, 32 << 20);
    runTool({"mkfs.ext4", "-q", "-F", "-d", tree, target});
    writeAt(target, 0, TestSupport::readAt(source, 0, 512));

    const std::string disk = dir.file("disk.img");
    makeSyslinuxDisk(disk, target, "83");
    EXPECT_FALSE(boots(disk, 10)) << "the copy booted before postclone";
    const std::string log = postclone({"--enable", "syslinux", disk});
    EXPECT_NE(log.find("Syslinux sector list adjustment: Ok"), std::string::npos) << log;
    EXPECT_TRUE(boots(disk)) << bootOutput(disk, 60);
    copySectors(disk, 2048, target, 0, std::filesystem::file_size(target) / 512);
    const auto check = run({"e2fsck", "-fn", target});
    EXPECT_EQ(check.exitCode, 0) << check.out;
}

// ---------------------------------------------------------------------------------------------
// GRUB 2: boot.img and a core image made by grub-mkimage, placed where grub-install puts them.

std::string grubConfig()
{
    return std::string("serial --unit=0 --speed=115200\nterminal_input serial\nterminal_output serial\necho ") +
           kMarker + "\nhalt\n";
}

// A core image that finds grub.cfg on the partition the prefix names.
std::vector<std::uint8_t> makeCore(const TestSupport::TempDir& dir, const std::string& prefix)
{
    const std::string core = dir.file("core.img");
    runTool({"grub-mkimage", "-O", "i386-pc", "-o", core, "-p", prefix, "biosdisk", "part_gpt", "part_msdos", "ext2",
             "normal", "echo", "serial", "terminal", "halt", "configfile"});
    auto bytes = TestSupport::readAt(core, 0, std::filesystem::file_size(core));
    bytes.resize((bytes.size() + 511) / 512 * 512, 0);
    return bytes;
}

// The core's block list for a core on runs of sectors (the first sector excluded), as
// grub-install writes it.
void listBlocks(std::vector<std::uint8_t>& core, const std::vector<std::pair<std::uint64_t, std::uint16_t>>& runs)
{
    std::uint16_t segment = 0x820;
    std::size_t offset = 0x1F4;
    for (const auto& [start, count] : runs) {
        putU64(core, offset, start);
        putU16(core, offset + 8, count);
        putU16(core, offset + 10, segment);
        segment = std::uint16_t(segment + count * 0x20);
        offset -= 12;
    }
}

void installBootImage(const std::string& disk, std::uint64_t coreSector)
{
    auto boot = TestSupport::readAt(std::string(kGrubModules) + "/boot.img", 0, 0x1B8);
    putU64(boot, 0x5C, coreSector);
    writeAt(disk, 0, boot); // the partition table stays
}

std::string extImage(const TestSupport::TempDir& dir, const std::string& name, const std::string& tree,
                     std::uint64_t megabytes)
{
    const std::string image = dir.file(name);
    TestSupport::createImage(image, megabytes << 20);
    runTool({"mkfs.ext4", "-q", "-F", "-b", "4096", "-d", tree, image});
    return image;
}

TEST(GrubSectorLists, ACoreInAMovedBiosBootPartitionIsFollowed)
{
    TestSupport::TempDir dir;
    writeText(dir.file("tree/boot/grub/grub.cfg"), grubConfig());
    const std::string root = extImage(dir, "root.img", dir.file("tree"), 16);
    auto core = makeCore(dir, "(hd0,gpt2)/boot/grub");
    const std::uint64_t coreSectors = core.size() / 512;

    const std::string source = dir.file("source.img"), target = dir.file("target.img");
    TestSupport::createImage(source, 24 << 20);
    runTool({"sgdisk", "-n1:2048:+1M", "-t1:EF02", "-n2:4096:+16M", "-t2:8300", source});
    copySectors(root, 0, source, 4096, 16 << 11);
    listBlocks(core, {{2049, std::uint16_t(coreSectors - 1)}});
    writeAt(source, 2048 * 512, core);
    installBootImage(source, 2048);
    ASSERT_TRUE(boots(source)) << bootOutput(source, 60);

    // The copy moves both partitions, each sector by sector, and keeps the boot code.
    TestSupport::createImage(target, 32 << 20);
    runTool({"sgdisk", "-n1:6144:+1M", "-t1:EF02", "-n2:10240:+16M", "-t2:8300", target});
    installBootImage(target, 2048);
    copySectors(source, 2048, target, 6144, 2048);
    copySectors(source, 4096, target, 10240, 16 << 11);
    EXPECT_FALSE(boots(target, 10)) << "the copy booted before postclone";

    const std::string log = postclone({"--source", source, "--enable", "grub-sectors", target});
    EXPECT_NE(log.find("Adjusted grub area list based on old list"), std::string::npos) << log;
    EXPECT_NE(log.find("Grub sector list adjustment: Ok"), std::string::npos) << log;
    EXPECT_TRUE(boots(target)) << bootOutput(target, 60);
    const auto check = run({"sgdisk", "-v", target});
    EXPECT_NE(check.out.find("No problems found"), std::string::npos) << check.out;
}

// An MBR disk with one Linux partition at 2048 holding partitionImage, and GRUB's boot code.
std::string makeGrubMbrDisk(const TestSupport::TempDir& dir, const std::string& name, const std::string& partitionImage)
{
    const std::string disk = dir.file(name);
    const auto sectors = std::filesystem::file_size(partitionImage) / 512;
    TestSupport::createImage(disk, (2048 + sectors) * 512);
    const auto table =
        run({"sh", "-c", "printf 'label: dos\\nstart=2048, type=83, bootable\\n' | sfdisk -q '" + disk + "'"});
    EXPECT_EQ(table.exitCode, 0) << table.err;
    copySectors(partitionImage, 0, disk, 2048, sectors);
    return disk;
}

// The disk sectors of a file inside an ext image at a partition start, as debugfs lists them.
std::vector<std::uint64_t> fileSectors(const std::string& image, const std::string& path, std::uint64_t partitionStart,
                                       std::uint64_t blockSectors, std::uint64_t wanted)
{
    std::vector<std::uint64_t> sectors;
    std::istringstream blocks(runTool({"debugfs", "-R", "blocks " + path, image}));
    for (std::uint64_t block; blocks >> block && sectors.size() < wanted;)
        for (std::uint64_t i = 0; i < blockSectors && sectors.size() < wanted; ++i)
            sectors.push_back(partitionStart + block * blockSectors + i);
    return sectors;
}

std::vector<std::pair<std::uint64_t, std::uint16_t>> runsOf(const std::vector<std::uint64_t>& sectors)
{
    std::vector<std::pair<std::uint64_t, std::uint16_t>> runs;
    for (const std::uint64_t sector : sectors)
        if (!runs.empty() && runs.back().first + runs.back().second == sector)
            ++runs.back().second;
        else
            runs.push_back({sector, 1});
    return runs;
}

TEST(GrubSectorLists, ACoreImageFileCopiedFileByFileIsFollowed)
{
    TestSupport::TempDir dir;
    const std::string tree = dir.file("tree"), corePath = "/boot/grub/i386-pc/core.img";
    writeText(tree + "/boot/grub/grub.cfg", grubConfig());
    auto core = makeCore(dir, "(hd0,msdos1)/boot/grub");
    const std::uint64_t coreSectors = core.size() / 512;
    std::filesystem::create_directories(tree + "/boot/grub/i386-pc");
    std::filesystem::copy_file(dir.file("core.img"), tree + corePath);

    // The original: the core's sectors listed in its first sector and the MBR, as a blocklist
    // install does where there is no room before the first partition.
    const std::string root = extImage(dir, "root.img", tree, 16);
    const auto sectors = fileSectors(root, corePath, 2048, 8, coreSectors);
    ASSERT_EQ(sectors.size(), coreSectors);
    listBlocks(core, runsOf({sectors.begin() + 1, sectors.end()}));
    writeAt(root, (sectors.front() - 2048) * 512, {core.begin(), core.begin() + 512});
    const std::string source = makeGrubMbrDisk(dir, "source.img", root);
    installBootImage(source, sectors.front());
    ASSERT_TRUE(boots(source)) << bootOutput(source, 60);

    // The copy: the same files in a file system of 1 KiB blocks, the boot code kept.
    runTool({"debugfs", "-R", "dump " + corePath + " " + tree + corePath, root});
    const std::string copy = dir.file("copy.img");
    TestSupport::createImage(copy, 16 << 20);
    runTool({"mkfs.ext4", "-q", "-F", "-b", "1024", "-d", tree, copy});
    const std::string target = makeGrubMbrDisk(dir, "target.img", copy);
    installBootImage(target, sectors.front());
    EXPECT_NE(fileSectors(copy, corePath, 2048, 2, coreSectors), sectors);
    EXPECT_FALSE(boots(target, 10)) << "the copy booted before postclone";

    const std::string log = postclone({"--enable", "grub-sectors", target});
    EXPECT_NE(log.find("Grub not in mbr reserved space, trying partitions"), std::string::npos) << log;
    EXPECT_NE(log.find("Adjusting Grub MBR loader"), std::string::npos) << log;
    EXPECT_NE(log.find("Grub sector list adjustment: Ok"), std::string::npos) << log;
    EXPECT_TRUE(boots(target)) << bootOutput(target, 60);
    copySectors(target, 2048, copy, 0, 16 << 11);
    const auto check = run({"e2fsck", "-fn", copy});
    EXPECT_EQ(check.exitCode, 0) << check.out;
}

TEST(GrubSectorLists, ACoreInTheMbrGapNeedsNothing)
{
    TestSupport::TempDir dir;
    writeText(dir.file("tree/boot/grub/grub.cfg"), grubConfig());
    const std::string root = extImage(dir, "root.img", dir.file("tree"), 16);
    const std::string source = makeGrubMbrDisk(dir, "source.img", root);
    auto core = makeCore(dir, "(hd0,msdos1)/boot/grub");
    listBlocks(core, {{2, std::uint16_t(core.size() / 512 - 1)}});
    writeAt(source, 512, core);
    installBootImage(source, 1);
    const std::string target = dir.file("target.img");
    std::filesystem::copy_file(source, target);
    ASSERT_TRUE(boots(target)) << bootOutput(target, 60);

    const std::string log = postclone({"--source", source, "--enable", "grub-sectors", target});
    EXPECT_NE(log.find("Grub is stored in the mbr reserved space so no adjustment needed"), std::string::npos) << log;
    EXPECT_NE(log.find("Grub sector list adjustment: Nothing found"), std::string::npos) << log;
    EXPECT_EQ(TestSupport::readAt(source, 0, 1 << 20), TestSupport::readAt(target, 0, 1 << 20));
    EXPECT_TRUE(boots(target)) << bootOutput(target, 60);
}

} // namespace
