// Linux disks as they are in use, not as mkfs leaves them: an ext4 mounted since its last check,
// damaged metadata, swap, the resume device in fstab, GRUB, initramfs-tools and the initramfs
// images, NTFS serials and MBR partitions past the ninth in Linux's own spelling. Checked with
// blkid, e2fsck, debugfs, cpio and the compressors' own tools.

#include "tests/support/command.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <set>

namespace {

using TestSupport::run;
using TestSupport::runTool;

constexpr std::uint64_t kRootStart = 2048; // sectors

void write(const std::string& path, const std::string& content)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string sh(const std::string& command)
{
    return runTool({"sh", "-c", command});
}

std::string trimmed(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

// As the file system's own tools print a random UUID: version 4, variant 10.
bool versionFourAsPrinted(const std::string& uuid)
{
    return std::regex_match(uuid, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
}

class InUse : public testing::Test {
protected:
    TestSupport::TempDir dir;
    std::string image = dir.file("disk.img");

    std::string fsUuid(std::uint64_t startSector)
    {
        return trimmed(
            runTool({"blkid", "-p", "-O", std::to_string(startSector * 512), "-o", "value", "-s", "UUID", image}));
    }

    std::string debugfsCat(std::uint64_t startSector, const std::string& path)
    {
        return runTool({"debugfs", "-R", "cat " + path, image + "?offset=" + std::to_string(startSector * 512)});
    }

    void place(const std::string& part, std::uint64_t startSector)
    {
        runTool({"dd", "if=" + part, "of=" + image, "bs=512", "seek=" + std::to_string(startSector), "conv=notrunc",
                 "status=none"});
    }

    void layout(const std::string& sfdiskScript)
    {
        write(dir.file("layout"), sfdiskScript);
        sh("sfdisk -q '" + image + "' < '" + dir.file("layout") + "'");
    }

    // A small tree with a hashed directory and a file of many extents, as a system in use has.
    std::string usedTree()
    {
        const std::string root = dir.file("tree");
        for (int i = 0; i < 600; ++i)
            write(root + "/var/lib/dpkg/info/package_with_a_long_name_" + std::to_string(i) + ".list", "/usr/bin\n");
        std::ofstream sparse(root + "/var/log/journal.bin", std::ios::binary);
        for (int i = 0; i < 64; ++i) {
            sparse.seekp(i * 65536);
            sparse << std::string(4096, char('a' + i % 26));
        }
        return root;
    }
};

// A root file system in use was mounted after its last check: that is no reason to refuse, and
// metadata that no longer matches its checksums is.
TEST_F(InUse, Ext4MountedSinceItsLastCheckGetsItsUuidAndDamageIsRefused)
{
    const std::string part = dir.file("root.fs");
    TestSupport::createImage(part, 64 << 20);
    runTool({"mkfs.ext4", "-q", "-F", "-b", "4096", "-O", "metadata_csum,^metadata_csum_seed", "-d", usedTree(), part});
    for (const char* field : {"ssv lastcheck 20230101", "ssv mtime 20260301", "ssv mnt_count 42"})
        runTool({"debugfs", "-w", "-R", field, part});
    ASSERT_NE(runTool({"dumpe2fs", "-h", part}).find("metadata_csum"), std::string::npos);
    const std::string used = dir.file("used.fs");
    std::filesystem::copy_file(part, used);

    struct Damage {
        const char* name;
        std::string command; // run on the partition file
        std::string named;   // what the refusal names
    };
    const std::string dirBlock =
        trimmed(sh("debugfs -R 'blocks /var/lib/dpkg/info' '" + used + "' 2>/dev/null | awk '{print $2}'"));
    const std::vector<Damage> damages{
        {"inode checksum", "debugfs -w -R 'sif <12> checksum 0x1234' '" + used + "'", "inode 12 does not match"},
        // The last four bytes of a directory block are its checksum.
        {"directory block",
         "printf '\\377' | dd of='" + used + "' bs=1 seek=$((" + dirBlock + " * 4096 + 4093))" +
             " conv=notrunc status=none",
         "directory block " + dirBlock},
    };

    TestSupport::createImage(image, 70 << 20);
    layout("label: dos\nstart=2048, size=131072, type=83\n");
    place(used, kRootStart);
    const std::string before = fsUuid(kRootStart);
    auto result = run({POSTCLONE_BINARY, "--json", "--enable", "fs-ids", image});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::string after = fsUuid(kRootStart);
    EXPECT_NE(after, before);
    EXPECT_TRUE(versionFourAsPrinted(after)) << after;
    const auto check = run({"e2fsck", "-fn", image + "?offset=" + std::to_string(kRootStart * 512)});
    EXPECT_EQ(check.exitCode, 0) << check.out << check.err;

    for (const auto& damage : damages) {
        std::filesystem::copy_file(part, used, std::filesystem::copy_options::overwrite_existing);
        sh(damage.command + " 2>/dev/null");
        ASSERT_NE(run({"e2fsck", "-fn", used}).exitCode, 0) << damage.name << ": the damage did not take";
        place(used, kRootStart);
        const std::string hash = sh("md5sum < '" + image + "'");
        result = run({POSTCLONE_BINARY, "--json", "--enable", "fs-ids", image});
        EXPECT_EQ(result.exitCode, 1) << damage.name;
        EXPECT_EQ(nlohmann::json::parse(result.out)["steps"][2]["word"], "FAILED") << damage.name;
        EXPECT_NE(result.err.find(damage.named), std::string::npos) << damage.name << ": " << result.err;
        EXPECT_NE(result.err.find("run e2fsck -f first"), std::string::npos) << result.err;
        EXPECT_EQ(sh("md5sum < '" + image + "'"), hash) << damage.name << ": the image changed";
    }
}

// A swap partition gets a new UUID, and everything that names it as the resume device follows:
// fstab, grub.cfg, GRUB's defaults, initramfs-tools' resume file, crypttab and the initramfs
// images in every compression.
class SwapInUse : public InUse {
protected:
    static constexpr std::uint64_t kSwapStart = 206848;
    const std::string swapUuid = "c0ffee00-1234-4abc-8def-0123456789ab";
    const std::string rootUuid = "3f1e2d4c-5b6a-4978-8a9b-0c1d2e3f4a5b";
    std::map<std::string, std::string> archives; // compression -> initrd name

    // The main archive of an initramfs, and a CPU-microcode early archive.
    void makeArchives()
    {
        const std::string main = dir.file("initrd/main"), early = dir.file("initrd/early");
        write(main + "/conf/conf.d/resume", "RESUME=UUID=" + swapUuid + "\n");
        write(main + "/conf/initramfs.conf", "MODULES=most\nBUSYBOX=auto\n");
        write(main + "/scripts/local", "#!/bin/sh\n# resume=UUID=" + swapUuid + " stays: only configuration changes\n");
        write(main + "/cryptroot/crypttab", "cswap PARTUUID=1a2b3c4d-02 /dev/urandom swap\n");
        sh("mkdir -p '" + main + "/bin' && head -c 300000 /dev/urandom > '" + main + "/bin/tool' && ln -s tool '" +
           main + "/bin/link'");
        write(early + "/kernel/x86/microcode/GenuineIntel.bin", std::string(5000, '\x5a'));
        sh("cd '" + main + "' && find . | sort | cpio -o -H newc --quiet > ../main.cpio");
        sh("cd '" + early + "' && find . | sort | cpio -o -H newc --quiet > ../early.cpio");
        const std::string boot = dir.file("tree/boot/"), cpio = dir.file("initrd/main.cpio");
        std::filesystem::create_directories(boot);
        sh("zstd -q -9 -c '" + cpio + "' | cat '" + dir.file("initrd/early.cpio") + "' - > '" + boot +
           "initrd.img-6.1.0-zstd'");
        sh("gzip -n -9 -c '" + cpio + "' > '" + boot + "initrd.img-6.1.0-gzip'");
        sh("xz --check=crc32 -c '" + cpio + "' > '" + boot + "initrd.img-6.1.0-xz'");
        sh("lz4 -q -l -9 -c '" + cpio + "' > '" + boot + "initrd.img-6.1.0-lz4'");
        archives = {{"zstd", "initrd.img-6.1.0-zstd"},
                    {"gzip", "initrd.img-6.1.0-gzip"},
                    {"xz", "initrd.img-6.1.0-xz"},
                    {"lz4", "initrd.img-6.1.0-lz4"}};
    }

    void makeDisk()
    {
        const std::string tree = usedTree();
        write(tree + "/etc/fstab",
              "UUID=" + rootUuid + " / ext4 errors=remount-ro 0 1\nUUID=" + swapUuid + " none swap sw 0 0\n");
        write(tree + "/etc/initramfs-tools/conf.d/resume", "RESUME=UUID=" + swapUuid + "\n");
        write(tree + "/etc/crypttab", "# <target> <source> <key> <options>\ncswap\tPARTUUID=1a2b3c4d-02  /dev/urandom "
                                      "swap,cipher=aes-xts-plain64\n");
        write(tree + "/etc/default/grub", "GRUB_DEFAULT=0\nGRUB_CMDLINE_LINUX_DEFAULT=\"quiet resume=UUID=" + swapUuid +
                                              "\"\nGRUB_CMDLINE_LINUX=\"\"\n");
        write(tree + "/etc/default/grub.d/50-resume.cfg",
              "GRUB_CMDLINE_LINUX=\"$GRUB_CMDLINE_LINUX resume=/dev/disk/by-uuid/" + swapUuid + "\"\n");
        write(tree + "/boot/grub/grub.cfg", "menuentry 'Debian' {\n\tlinux /boot/vmlinuz root=UUID=" + rootUuid +
                                                " ro resume=UUID=" + swapUuid + " quiet\n}\n");
        makeArchives();
        const std::string root = dir.file("root.fs"), swap = dir.file("swap.fs");
        TestSupport::createImage(root, 100 << 20);
        runTool({"mkfs.ext4", "-q", "-F", "-U", rootUuid, "-d", tree, root});
        runTool({"debugfs", "-w", "-R", "ssv mtime 20260301", root}); // in use since its last check
        TestSupport::createImage(swap, 32 << 20);
        runTool({"mkswap", "-q", "-U", swapUuid, swap});
        TestSupport::createImage(image, 140 << 20);
        layout("label: dos\nlabel-id: 0x1a2b3c4d\nstart=2048, size=204800, type=83\nstart=206848, size=65536, "
               "type=82\n");
        place(root, kRootStart);
        place(swap, kSwapStart);
    }

    // The archive's members (names and contents) after the run; the early archive must be the
    // same bytes.
    void expectArchiveFollows(const std::string& compression, const std::string& newSwap)
    {
        const std::string name = archives[compression];
        const std::string got = dir.file("got-" + name);
        write(got, debugfsCat(kRootStart, "/boot/" + name));
        std::string packed = got;
        if (compression == "zstd") {
            const auto earlySize = std::filesystem::file_size(dir.file("initrd/early.cpio"));
            EXPECT_EQ(TestSupport::readFile(got).substr(0, earlySize),
                      TestSupport::readFile(dir.file("initrd/early.cpio")));
            packed = got + ".main";
            write(packed, TestSupport::readFile(got).substr(earlySize));
        }
        if (compression == "xz") { // the kernel reads xz with a CRC32 check only
            EXPECT_NE(runTool({"xz", "--robot", "-lv", packed}).find("CRC32"), std::string::npos);
        }
        const std::string unpacked = dir.file("unpacked-" + compression);
        std::filesystem::create_directories(unpacked);
        const std::string decompress = compression == "zstd" ? "zstd -dc" : compression + " -dc";
        sh(decompress + " < '" + packed + "' > '" + unpacked + ".cpio'");
        EXPECT_EQ(sh("cpio -t --quiet < '" + unpacked + ".cpio'"),
                  sh("cpio -t --quiet < '" + dir.file("initrd/main.cpio") + "'"))
            << compression;
        sh("cd '" + unpacked + "' && cpio -id --quiet < '" + unpacked + ".cpio'");
        const std::string main = dir.file("initrd/main");
        EXPECT_EQ(TestSupport::readFile(unpacked + "/conf/conf.d/resume"), "RESUME=UUID=" + newSwap + "\n")
            << compression;
        for (const char* same : {"/conf/initramfs.conf", "/scripts/local", "/bin/tool"})
            EXPECT_EQ(TestSupport::readFile(unpacked + same), TestSupport::readFile(main + same))
                << compression << same;
        EXPECT_EQ(std::filesystem::read_symlink(unpacked + "/bin/link"), "tool");
        EXPECT_NE(TestSupport::readFile(unpacked + "/cryptroot/crypttab"),
                  TestSupport::readFile(main + "/cryptroot/crypttab"));
    }
};

TEST_F(SwapInUse, EverythingNamingTheSwapFollowsItsNewUuid)
{
    makeDisk();
    const auto result = run({POSTCLONE_BINARY, "--preset", "1", image});
    ASSERT_EQ(result.exitCode, 0) << result.err << result.out;

    const std::string newSwap = fsUuid(kSwapStart), newRoot = fsUuid(kRootStart);
    EXPECT_NE(newSwap, swapUuid);
    EXPECT_TRUE(versionFourAsPrinted(newSwap)) << newSwap;
    EXPECT_EQ(
        trimmed(runTool({"blkid", "-p", "-O", std::to_string(kSwapStart * 512), "-o", "value", "-s", "TYPE", image})),
        "swap");
    const std::string swapCopy = dir.file("swap.copy");
    runTool({"dd", "if=" + image, "of=" + swapCopy, "bs=512", "skip=" + std::to_string(kSwapStart), "count=65536",
             "status=none"});
    EXPECT_EQ(trimmed(runTool({"swaplabel", swapCopy})), "UUID:  " + newSwap);
    const std::string signature = trimmed(runTool({"blkid", "-p", "-o", "value", "-s", "PTUUID", image})).substr(0, 8);
    ASSERT_NE(signature, "1a2b3c4d");

    EXPECT_EQ(debugfsCat(kRootStart, "/etc/fstab"),
              "UUID=" + newRoot + " / ext4 errors=remount-ro 0 1\nUUID=" + newSwap + " none swap sw 0 0\n");
    EXPECT_EQ(debugfsCat(kRootStart, "/etc/initramfs-tools/conf.d/resume"), "RESUME=UUID=" + newSwap + "\n");
    EXPECT_EQ(debugfsCat(kRootStart, "/etc/crypttab"),
              "# <target> <source> <key> <options>\ncswap\tPARTUUID=" + signature +
                  "-02  /dev/urandom swap,cipher=aes-xts-plain64\n");
    EXPECT_EQ(debugfsCat(kRootStart, "/etc/default/grub"),
              "GRUB_DEFAULT=0\nGRUB_CMDLINE_LINUX_DEFAULT=\"quiet resume=UUID=" + newSwap +
                  "\"\nGRUB_CMDLINE_LINUX=\"\"\n");
    EXPECT_EQ(debugfsCat(kRootStart, "/etc/default/grub.d/50-resume.cfg"),
              "GRUB_CMDLINE_LINUX=\"$GRUB_CMDLINE_LINUX resume=/dev/disk/by-uuid/" + newSwap + "\"\n");
    EXPECT_EQ(debugfsCat(kRootStart, "/boot/grub/grub.cfg"),
              "menuentry 'Debian' {\n\tlinux /boot/vmlinuz root=UUID=" + newRoot + " ro resume=UUID=" + newSwap +
                  " quiet\n}\n");
    for (const auto& [compression, name] : archives)
        expectArchiveFollows(compression, newSwap);
    const auto check = run({"e2fsck", "-fn", image + "?offset=" + std::to_string(kRootStart * 512)});
    EXPECT_EQ(check.exitCode, 0) << check.out;
}

// fstab as Linux writes it: an NTFS serial in 16 hex digits, and the kernel's hex partition
// numbers on an MBR disk with logical partitions past the ninth.
TEST_F(InUse, NtfsSerialsAndHighMbrPartitionNumbersInLinuxSpelling)
{
    TestSupport::createImage(image, 64 << 20);
    std::string script = "label: dos\nlabel-id: 0x0badcafe\nstart=2048, size=40960, type=83\n"
                         "start=43008, size=16384, type=7\nstart=59392, type=5\n";
    for (int logical = 5; logical <= 12; ++logical)
        script += "size=1024, type=83\n";
    layout(script);
    ASSERT_NE(runTool({"sfdisk", "-l", image}).find(image + "12"), std::string::npos);

    const std::string ntfs = dir.file("ntfs.fs");
    TestSupport::createImage(ntfs, 16384 * 512);
    runTool({"mkntfs", "-F", "-f", "-q", ntfs});
    place(ntfs, 43008);
    const std::string oldSerial =
        trimmed(runTool({"blkid", "-p", "-O", std::to_string(43008 * 512), "-o", "value", "-s", "UUID", image}));
    ASSERT_EQ(oldSerial.size(), 16u);
    const std::string fstab = "UUID=" + oldSerial +
                              " /mnt/windows ntfs-3g defaults 0 0\n"
                              "PARTUUID=0badcafe-0a /mnt/ten ext4 defaults 0 2\n"
                              "PARTUUID=0BADCAFE-0C /mnt/twelve ext4 defaults 0 2\n"
                              "PARTUUID=0badcafe-010 /mnt/old-style ext4 defaults 0 2\n";
    write(dir.file("root/etc/fstab"), fstab);
    const std::string root = dir.file("root.fs");
    TestSupport::createImage(root, 40960 * 512);
    runTool({"mkfs.ext4", "-q", "-F", "-d", dir.file("root"), root});
    place(root, kRootStart);

    const auto result = run({POSTCLONE_BINARY, "--preset", "1", "--json", image});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::string newSerial =
        trimmed(runTool({"blkid", "-p", "-O", std::to_string(43008 * 512), "-o", "value", "-s", "UUID", image}));
    const std::string signature = trimmed(runTool({"blkid", "-p", "-o", "value", "-s", "PTUUID", image})).substr(0, 8);
    ASSERT_NE(newSerial, oldSerial);
    std::string upper = signature;
    std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return char(std::toupper(c)); });
    EXPECT_EQ(debugfsCat(kRootStart, "/etc/fstab"),
              "UUID=" + newSerial + " /mnt/windows ntfs-3g defaults 0 0\nPARTUUID=" + signature +
                  "-0a /mnt/ten ext4 defaults 0 2\nPARTUUID=" + upper + "-0C /mnt/twelve ext4 defaults 0 2\nPARTUUID=" +
                  signature + "-010 /mnt/old-style ext4 defaults 0 2\n");

    // The report names partitions and NTFS serials as blkid does.
    const auto report = nlohmann::json::parse(result.out);
    std::set<std::string> reported;
    for (const auto& mapping : report["mappings"])
        reported.insert(mapping["new"].get<std::string>());
    EXPECT_TRUE(reported.count(signature + "-0c")) << result.out;
    EXPECT_TRUE(reported.count(newSerial)) << result.out;
}

} // namespace
