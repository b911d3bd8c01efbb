// A Linux disk cloned and given new ids still names them everywhere it boots from: fstab, GRUB
// (BIOS and EFI) and the Raspberry Pi command line, on GPT and MBR, checked with blkid, sgdisk,
// sfdisk, debugfs, mtools, e2fsck and fsck.fat.

#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace {

using TestSupport::run;
using TestSupport::runTool;

constexpr std::uint64_t kBootStart = 2048, kRootStart = 133120; // sectors; 64 MiB boot, 100 MiB root
const std::string kRootUuid = "3f1e2d4c-5b6a-4978-8a9b-0c1d2e3f4a5b";
const std::string kBootSerial = "1234ABCD"; // shown as 1234-ABCD
const std::string kBootGuid = "0E3A2E14-1111-4C2B-9D33-5A0B00C0FFEE";
const std::string kRootGuid = "7C44D1F2-2222-4E9A-8C61-2B3D4E5F6071";

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

class LinuxBoot : public testing::Test {
protected:
    TestSupport::TempDir dir;
    std::string image = dir.file("disk.img");
    std::map<std::string, std::string> before; // file -> content

    void SetUp() override { setenv("MTOOLS_SKIP_CHECK", "1", 1); }

    // The files of the installed system, naming the given partition ids.
    void writeTree(const std::string& root, const std::string& bootPart, const std::string& rootPart)
    {
        std::filesystem::create_directories(root + "/etc");
        std::filesystem::create_directories(root + "/boot/grub");
        before["/etc/fstab"] = "# /etc/fstab: static file system information.\n"
                               "UUID=" +
                               kRootUuid +
                               " / ext4 errors=remount-ro 0 1\n"
                               "UUID=1234-ABCD /boot/efi vfat umask=0077 0 1\n"
                               "PARTUUID=" +
                               rootPart +
                               "\t/mnt/same\text4 defaults 0 2\n"
                               "/dev/disk/by-uuid/" +
                               lower(kRootUuid) +
                               " /mnt/by-uuid ext4 defaults 0 2\n"
                               "/dev/disk/by-partuuid/" +
                               lower(bootPart) +
                               " /mnt/by-partuuid vfat defaults 0 2\n"
                               "UUID=0000-1111 /mnt/other\\040disk vfat defaults 0 2\n"
                               "tmpfs /tmp tmpfs defaults 0 0";
        before["/boot/grub/grub.cfg"] = "insmod ext2\n"
                                        "search --no-floppy --fs-uuid --set=root " +
                                        kRootUuid +
                                        "\n"
                                        "menuentry 'Linux' {\n"
                                        "\tsearch --no-floppy --fs-uuid --set=root " +
                                        kRootUuid +
                                        "\n"
                                        "\tlinux /boot/vmlinuz root=UUID=" +
                                        kRootUuid +
                                        " ro quiet\n"
                                        "}\n"
                                        "search --file /boot/grub/marker\n";
        for (const auto& [path, content] : before)
            std::ofstream(root + path, std::ios::binary) << content;
    }

    void makeDisk(bool gpt)
    {
        TestSupport::createImage(image, 180 << 20);
        if (gpt) {
            runTool({"sgdisk", "-n1:2048:+64M", "-t1:ef00", "-u1:" + kBootGuid, "-n2:133120:+100M", "-t2:8300",
                     "-u2:" + kRootGuid, image});
        } else {
            std::ofstream(dir.file("layout")) << "label: dos\nlabel-id: 0x1a2b3c4d\nstart=2048, size=131072, type=c\n"
                                                 "start=133120, size=204800, type=83\n";
            ASSERT_EQ(run({"sh", "-c", "sfdisk -q '" + image + "' < '" + dir.file("layout") + "'"}).exitCode, 0);
        }
        const std::string bootPart = gpt ? kBootGuid : "1a2b3c4d-01";
        const std::string rootPart = gpt ? kRootGuid : "1a2b3c4d-02";
        writeTree(dir.file("root"), bootPart, rootPart);
        const std::string rootFs = dir.file("root.fs");
        TestSupport::createImage(rootFs, 100 << 20);
        runTool({"mkfs.ext4", "-q", "-F", "-U", kRootUuid, "-d", dir.file("root"), rootFs});
        runTool({"dd", "if=" + rootFs, "of=" + image, "bs=512", "seek=" + std::to_string(kRootStart), "conv=notrunc",
                 "status=none"});

        runTool({"mkfs.fat", "-F", "32", "-s", "1", "-i", kBootSerial, "--offset", std::to_string(kBootStart), image,
                 "65536"});
        before["/cmdline.txt"] =
            "console=serial0,115200 console=tty1 root=PARTUUID=" + rootPart + " rootfstype=ext4 rootwait";
        before["/EFI/debian/grub.cfg"] =
            "search.fs_uuid " + kRootUuid + " root hd0,gpt2\nset prefix=($root)'/boot/grub'\n";
        const std::string fat = image + "@@" + std::to_string(kBootStart * 512);
        for (const auto& [path, content] : std::map<std::string, std::string>{
                 {"cmdline.txt", before["/cmdline.txt"]}, {"bootcode.bin", "firmware"}, {"start.elf", "firmware"}}) {
            std::ofstream(dir.file(path), std::ios::binary) << content;
            runTool({"mcopy", "-i", fat, dir.file(path), "::/" + path});
        }
        runTool({"mmd", "-i", fat, "::/EFI", "::/EFI/debian"});
        std::ofstream(dir.file("efi.cfg"), std::ios::binary) << before["/EFI/debian/grub.cfg"];
        runTool({"mcopy", "-i", fat, dir.file("efi.cfg"), "::/EFI/debian/grub.cfg"});
    }

    std::string fsId(std::uint64_t start)
    {
        return runTool({"blkid", "-p", "-O", std::to_string(start * 512), "-o", "value", "-s", "UUID", image});
    }

    // The ids the image has after the run: file systems (blkid), partitions (sgdisk, or the MBR
    // signature as blkid shows it).
    std::set<std::string> newIds(bool gpt)
    {
        std::set<std::string> ids{lower(fsId(kRootStart).substr(0, 36)), lower(fsId(kBootStart).substr(0, 9))};
        if (gpt) {
            for (int n : {1, 2}) {
                const std::string info = runTool({"sgdisk", "-i", std::to_string(n), image});
                std::smatch found;
                EXPECT_TRUE(std::regex_search(info, found, std::regex("unique GUID: (\\S+)")));
                ids.insert(lower(found[1].str()));
            }
        } else {
            const std::string label = lower(runTool({"blkid", "-p", "-o", "value", "-s", "PTUUID", image}));
            ids.insert(label.substr(0, 8) + "-01");
            ids.insert(label.substr(0, 8) + "-02");
        }
        return ids;
    }

    // Every id in the rewritten file is a new one that the image has, and every other line is
    // byte-identical.
    void expectRewritten(const std::string& path, const std::string& after, const std::set<std::string>& newIds)
    {
        const auto old = lines(before[path]), now = lines(after);
        ASSERT_EQ(old.size(), now.size()) << path;
        const std::regex id("(?:UUID=|by-uuid/|by-partuuid/|fs-uuid --set=root |fs_uuid )([0-9A-Fa-f-]+)");
        for (std::size_t i = 0; i < old.size(); ++i) {
            std::smatch found;
            const bool named = std::regex_search(old[i], found, id) && found[1].str() != "0000-1111";
            if (!named) {
                EXPECT_EQ(now[i], old[i]) << path;
                continue;
            }
            ASSERT_TRUE(std::regex_search(now[i], found, id)) << now[i];
            EXPECT_TRUE(newIds.count(lower(found[1].str()))) << path << ": " << now[i];
            EXPECT_NE(now[i], old[i]) << path;
        }
    }
};

TEST_F(LinuxBoot, GptAndMbrDisksNameTheirNewIdsEverywhere)
{
    for (const bool gpt : {true, false}) {
        before.clear();
        makeDisk(gpt);
        const auto result = run({POSTCLONE_BINARY, "--preset", "1", image});
        ASSERT_EQ(result.exitCode, 0) << result.err << result.out;

        const auto ids = newIds(gpt);
        const std::string rootFs = image + "?offset=" + std::to_string(kRootStart * 512);
        const std::string fat = image + "@@" + std::to_string(kBootStart * 512);
        expectRewritten("/etc/fstab", runTool({"debugfs", "-R", "cat /etc/fstab", rootFs}), ids);
        expectRewritten("/boot/grub/grub.cfg", runTool({"debugfs", "-R", "cat /boot/grub/grub.cfg", rootFs}), ids);
        expectRewritten("/cmdline.txt", runTool({"mtype", "-i", fat, "::/cmdline.txt"}), ids);
        expectRewritten("/EFI/debian/grub.cfg", runTool({"mtype", "-i", fat, "::/EFI/debian/grub.cfg"}), ids);

        EXPECT_EQ(run({"e2fsck", "-fn", rootFs}).exitCode, 0);
        const std::string boot = dir.file("boot.fs");
        runTool({"dd", "if=" + image, "of=" + boot, "bs=512", "skip=2048", "count=131072", "status=none"});
        const auto check = run({"fsck.fat", "-n", boot});
        EXPECT_EQ(check.exitCode, 0);
        EXPECT_EQ(std::count(check.out.begin(), check.out.end(), '\n'), 2) << check.out;
    }
}

TEST_F(LinuxBoot, MountedRootIsEditedInItsFolder)
{
    makeDisk(true);
    const std::string mounted = dir.file("mounted");
    writeTree(mounted, kBootGuid, kRootGuid);
    std::ofstream(mounted + "/boot/grub/grub.cfg", std::ios::app)
        << "linux /boot/vmlinuz root=/dev/disk/by-id/HD_Model_500_W123-part2 ro\n";
    // The folder holds the root file system's files; the ids still come from the image.
    const auto result = run({POSTCLONE_BINARY, "--preset", "1", "--mounted", "2=" + mounted, "--disk-id-names",
                             "HD Model 500,W123,SSD Model 860,S4X", image});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    std::ifstream in(mounted + "/etc/fstab", std::ios::binary);
    const std::string after{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    expectRewritten("/etc/fstab", after, newIds(true));
    std::ifstream grub(mounted + "/boot/grub/grub.cfg", std::ios::binary);
    const std::string grubAfter{std::istreambuf_iterator<char>(grub), std::istreambuf_iterator<char>()};
    EXPECT_NE(grubAfter.find("linux /boot/vmlinuz root=/dev/disk/by-id/SSD_Model_860_S4X-part2 ro\n"),
              std::string::npos)
        << grubAfter;
    // The root file system inside the image was not the one edited.
    const std::string rootFs = image + "?offset=" + std::to_string(kRootStart * 512);
    EXPECT_EQ(runTool({"debugfs", "-R", "cat /etc/fstab", rootFs}), before["/etc/fstab"]);
}

} // namespace
