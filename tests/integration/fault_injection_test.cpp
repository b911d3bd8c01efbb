// A write that fails part-way, at every write a change makes (the disk takes the writes after it
// again, as it does around a bad sector): the step fails, what it had written is put back, the
// family's checker sees the structure as it was, and no other step names an id that did not
// reach the disk.

#include "platform/fs/filesys.h"
#include "platform/fs/filesys_base.h"
#include "postprocessing/bootloader/grub_config.h"
#include "postprocessing/common/volume_ids.h"
#include "postprocessing/linux/fstab.h"
#include "postprocessing/pp_handler.h"
#include "tests/support/command.h"
#include "tests/support/counting_storage.h"
#include "tests/support/file_system_families.h"
#include "tests/support/keeper_builder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>

namespace {

namespace PP = Libraries::KRO::PostProcessing;
using Platform::makeRef;
using Platform::MemoryStorage;
using TestSupport::CountingStorage;
using TestSupport::run;
using TestSupport::runTool;

constexpr std::uint64_t kNoFault = std::numeric_limits<std::uint64_t>::max();

std::string lower(std::string text)
{
    for (auto& c : text)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

Platform::Ref<MemoryStorage> copyOf(const std::vector<std::uint8_t>& bytes)
{
    auto copy = makeRef<MemoryStorage>(512u, bytes.size() / 512);
    copy->bytes() = bytes;
    return copy;
}

void saveSlice(const std::vector<std::uint8_t>& bytes, std::uint64_t firstSector, std::uint64_t sectors,
               const std::string& path)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data() + firstSector * 512), std::streamsize(sectors * 512));
}

std::string fsUuid(const std::string& path)
{
    return lower(run({"blkid", "-p", "-o", "value", "-s", "UUID", path}).out);
}

class FaultInjection : public testing::Test {
protected:
    TestSupport::TempDir dir;
    void SetUp() override { setenv("MTOOLS_SKIP_CHECK", "1", 1); }

    // A partition file of the family, used: ext gets a tree of files, the others a file or two.
    std::string makeFileSystem(const TestSupport::Family& family)
    {
        const std::string part = dir.file(family.name + ".part");
        TestSupport::createImage(part, family.mib << 20);
        auto mkfs = family.mkfs;
        if (family.name.rfind("ext", 0) == 0) {
            std::filesystem::create_directories(dir.file("tree/etc"));
            for (int i = 0; i < 300; ++i)
                std::ofstream(dir.file("tree/etc/file" + std::to_string(i))) << std::string(std::size_t(i * 7), 'x');
            mkfs.insert(mkfs.end(), {"-d", dir.file("tree")});
        }
        mkfs.push_back(part);
        runTool(mkfs);
        return part;
    }
};

// Every family's id change, failing at each of its writes in turn.
TEST_F(FaultInjection, VolumeIdChangesOfEveryFamilyAreOldOrNew)
{
    auto families = TestSupport::families();
    families.push_back({"swap", 8, {"mkswap", "-q"}, {"blkid", "-p"}});
    for (const auto& family : families) {
        const std::string part = makeFileSystem(family);
        const std::string oldUuid = fsUuid(part);
        const auto original = TestSupport::loadImage(part)->bytes();
        const auto change = [&](MemoryStorage& memory, std::uint64_t failing) {
            auto counted = makeRef<CountingStorage>(Platform::Ref<MemoryStorage>(&memory));
            counted->failingWrite = failing;
            auto keeper = PP::Keeper::create();
            const PP::u64 partition = keeper->addEntry(PP::KindPartition, {}, {}, 1, 0);
            Platform::ScopedLogCapture quiet;
            const auto result = PP::Common::changeVolumeId(keeper, Platform::MountHelper::open(counted), partition, 0);
            return std::pair(result, counted->writeCalls);
        };

        const auto complete = copyOf(original);
        const auto [result, writes] = change(*complete, kNoFault);
        ASSERT_EQ(result, PP::StepResult::Ok) << family.name;
        TestSupport::saveImage(*complete, dir.file("new.part"));
        ASSERT_NE(fsUuid(dir.file("new.part")), oldUuid) << family.name;
        ASSERT_GT(writes, 0u);

        for (std::uint64_t failing = 0; failing < writes; ++failing) {
            const auto torn = copyOf(original);
            EXPECT_EQ(change(*torn, failing).first, PP::StepResult::Failed) << family.name << " write " << failing;
            EXPECT_TRUE(torn->bytes() == original)
                << family.name << ": write " << failing << " of " << writes << " left the file system changed";
            if (failing == writes / 2) { // byte-identical, so once per family is proof enough
                TestSupport::saveImage(*torn, dir.file("torn.part"));
                auto check = family.check;
                check.push_back(dir.file("torn.part"));
                EXPECT_EQ(run(check).exitCode, 0) << family.name;
                EXPECT_EQ(fsUuid(dir.file("torn.part")), oldUuid) << family.name;
            }
        }
        std::filesystem::remove(part);
    }
}

// Rewriting a file through the facade: flush writes all of it or none of it.
TEST_F(FaultInjection, FileWritesThroughTheFacadeAreOldOrNew)
{
    const std::string oldText = "# one line\n";
    std::string newText;
    for (int i = 0; i < 200; ++i) // grows the file across clusters and blocks
        newText += "line " + std::to_string(i) + " of a file that grows through the facade\n";
    std::ofstream(dir.file("file.txt")) << oldText;
    std::filesystem::create_directories(dir.file("tree/etc"));
    std::filesystem::copy_file(dir.file("file.txt"), dir.file("tree/etc/file.txt"));
    for (const std::string name : {"fat16", "fat32", "ext4", "ntfs"}) {
        const auto& family = *std::find_if(TestSupport::families().begin(), TestSupport::families().end(),
                                           [&](const auto& f) { return f.name == name; });
        const bool fat = name.starts_with("fat");
        const std::string part = makeFileSystem(family);
        // ntfscp cannot make folders: the NTFS file lies in the root.
        const std::string path = name == "ntfs" ? "/file.txt" : "/etc/file.txt";
        if (fat) {
            runTool({"mmd", "-i", part, "::/etc"});
            runTool({"mcopy", "-i", part, dir.file("file.txt"), "::" + path});
        } else if (name == "ntfs") {
            runTool({"ntfscp", part, dir.file("file.txt"), path});
        }
        const auto original = TestSupport::loadImage(part)->bytes();
        const auto rewrite = [&](MemoryStorage& memory, std::uint64_t failing) {
            auto counted = makeRef<CountingStorage>(Platform::Ref<MemoryStorage>(&memory));
            Platform::ScopedLogCapture quiet;
            bool done = false;
            {
                const auto fs = Platform::Filesys::create(counted, Platform::OpenFlags::FileSystemByPath);
                counted->failingWrite = failing;
                const auto file = fs ? fs->openFile(path, Platform::OpenFlags::ReadWriteExisting) : nullptr;
                done = file && file->resize(newText.size()) == newText.size() && file->seek(0) &&
                       file->write(newText.data(), newText.size()) == newText.size() && file->flush();
            }
            return std::pair(done, counted->writeCalls);
        };

        const auto complete = copyOf(original);
        const auto [done, writes] = rewrite(*complete, kNoFault);
        ASSERT_TRUE(done) << name;
        const std::string written = dir.file("new.part");
        TestSupport::saveImage(*complete, written);
        const auto read = fat              ? std::vector<std::string>{"mtype", "-i", written, "::" + path}
                          : name == "ntfs" ? std::vector<std::string>{"ntfscat", written, path}
                                           : std::vector<std::string>{"debugfs", "-R", "cat " + path, written};
        EXPECT_EQ(runTool(read), newText) << name;
        auto check = family.check;
        check.push_back(written);
        EXPECT_EQ(run(check).exitCode, 0) << name;

        for (std::uint64_t failing = 0; failing < writes; ++failing) {
            const auto torn = copyOf(original);
            EXPECT_FALSE(rewrite(*torn, failing).first) << name << " write " << failing;
            EXPECT_TRUE(torn->bytes() == original)
                << name << ": write " << failing << " of " << writes << " left the file system changed";
        }
        std::filesystem::remove(part);
    }
}

// A cloned Linux disk through the whole preset-1 run, failing at each write of the run in turn:
// whatever step the failing write belongs to, the table and every file system pass their
// checkers, the failure is reported, and no file names a new id the disk does not have. (A file
// whose own rewrite failed still names the old id: the ids already changed stay changed.)
TEST_F(FaultInjection, AWholeRunNamesOnlyIdsThatReachedTheDisk)
{
    const std::string rootUuid = "3f1e2d4c-5b6a-4978-8a9b-0c1d2e3f4a5b";
    const std::string swapUuid = "0b6a3f3e-8c1d-4a8e-9d3c-7a1e2b3c4d5e";
    const std::string bootSerial = "1234ABCD"; // 1234-abcd
    const std::string rootGuid = "7c44d1f2-2222-4e9a-8c61-2b3d4e5f6071";
    struct Slice {
        std::uint64_t start, sectors;
    };
    const Slice boot{2048, 32768}, root{34816, 65536}, swap{100352, 16384};

    const std::string image = dir.file("disk.img");
    TestSupport::createImage(image, 64 << 20);
    runTool({"sgdisk", "-n1:2048:+16M", "-t1:ef00", "-n2:34816:+32M", "-t2:8300", "-u2:" + rootGuid, "-n3:100352:+8M",
             "-t3:8200", image});
    std::filesystem::create_directories(dir.file("root/etc/initramfs-tools/conf.d"));
    std::filesystem::create_directories(dir.file("root/boot/grub"));
    std::ofstream(dir.file("root/etc/fstab")) << "UUID=" << rootUuid << " / ext4 errors=remount-ro 0 1\n"
                                              << "UUID=1234-ABCD /boot/efi vfat umask=0077 0 1\n"
                                              << "UUID=" << swapUuid << " none swap sw 0 0\n"
                                              << "PARTUUID=" << rootGuid << " /mnt/root ext4 defaults 0 2\n";
    std::ofstream(dir.file("root/boot/grub/grub.cfg"))
        << "search --no-floppy --fs-uuid --set=root " << rootUuid << "\n"
        << "linux /vmlinuz root=UUID=" << rootUuid << " resume=UUID=" << swapUuid << " ro quiet\n";
    std::ofstream(dir.file("root/etc/initramfs-tools/conf.d/resume")) << "RESUME=UUID=" << swapUuid << "\n";
    std::ofstream(dir.file("efi.cfg")) << "search.fs_uuid " << rootUuid << " root hd0,gpt2\n";
    const auto place = [&](const std::string& part, const Slice& slice) {
        runTool({"dd", "if=" + part, "of=" + image, "bs=512", "seek=" + std::to_string(slice.start), "conv=notrunc",
                 "status=none"});
    };
    TestSupport::createImage(dir.file("boot.fs"), boot.sectors * 512);
    runTool({"mkfs.fat", "-F", "16", "-i", bootSerial, dir.file("boot.fs")});
    runTool({"mmd", "-i", dir.file("boot.fs"), "::/EFI", "::/EFI/debian"});
    runTool({"mcopy", "-i", dir.file("boot.fs"), dir.file("efi.cfg"), "::/EFI/debian/grub.cfg"});
    place(dir.file("boot.fs"), boot);
    TestSupport::createImage(dir.file("root.fs"), root.sectors * 512);
    runTool({"mkfs.ext4", "-q", "-F", "-U", rootUuid, "-d", dir.file("root"), dir.file("root.fs")});
    place(dir.file("root.fs"), root);
    TestSupport::createImage(dir.file("swap.fs"), swap.sectors * 512);
    runTool({"mkswap", "-q", "-U", swapUuid, dir.file("swap.fs")});
    place(dir.file("swap.fs"), swap);
    const auto original = TestSupport::loadImage(image)->bytes();

    struct Outcome {
        bool failedStep = false;
        bool copyBackFailed = false; // GRUB and fstab log it and keep their result
        std::uint64_t writes = 0;
        std::set<std::string> idsOnDisk;
        std::vector<std::string> idsNamed;
    };
    const auto runPreset = [&](std::uint64_t failing) {
        const auto memory = copyOf(original);
        auto counted = makeRef<CountingStorage>(memory);
        counted->failingWrite = failing;
        Outcome outcome;
        {
            auto keeper = PP::Keeper::create();
            PP::Keeper::setPreset(keeper, nullptr, PP::Keeper::PresetFull);
            TestSupport::addDiskWithPartitions(*keeper, counted);
            Platform::ScopedLogCapture quiet;
            PP::PPHandler::process(keeper, Platform::Ref<Interfaces::ProgressNotifier>());
            for (int slot = 0; slot < PP::kStepCount; ++slot)
                outcome.failedStep |= keeper->getResult(slot) == PP::StepResult::Failed;
            for (const auto& line : quiet.sink().lines())
                outcome.copyBackFailed |= line.level == Platform::LogError && line.text.ends_with("back to disk");
        }
        outcome.writes = counted->writeCalls;

        TestSupport::saveImage(*memory, image);
        const auto& bytes = memory->bytes();
        EXPECT_NE(runTool({"sgdisk", "-v", image}).find("No problems found"), std::string::npos) << failing;
        for (int n = 1; n <= 3; ++n) {
            std::smatch found;
            const std::string info = runTool({"sgdisk", "-i", std::to_string(n), image});
            if (std::regex_search(info, found, std::regex("unique GUID: (\\S+)")))
                outcome.idsOnDisk.insert(lower(found[1].str()));
        }
        for (const auto& [name, slice, check] : {std::tuple{"boot", boot, std::vector<std::string>{"fsck.fat", "-n"}},
                                                 std::tuple{"root", root, std::vector<std::string>{"e2fsck", "-fn"}},
                                                 std::tuple{"swap", swap, std::vector<std::string>{"blkid", "-p"}}}) {
            const std::string part = dir.file(std::string(name) + ".slice");
            saveSlice(bytes, slice.start, slice.sectors, part);
            auto checker = check;
            checker.push_back(part);
            EXPECT_EQ(run(checker).exitCode, 0) << name << " after a failure at write " << failing;
            outcome.idsOnDisk.insert(fsUuid(part).substr(0, fsUuid(part).find('\n')));
        }
        const std::string texts =
            runTool({"debugfs", "-R", "cat /etc/fstab", dir.file("root.slice")}) +
            runTool({"debugfs", "-R", "cat /boot/grub/grub.cfg", dir.file("root.slice")}) +
            runTool({"debugfs", "-R", "cat /etc/initramfs-tools/conf.d/resume", dir.file("root.slice")}) +
            runTool({"mtype", "-i", dir.file("boot.slice"), "::/EFI/debian/grub.cfg"});
        const std::regex named("(?:UUID=|--set=root |fs_uuid )([0-9A-Fa-f-]+)");
        for (auto it = std::sregex_iterator(texts.begin(), texts.end(), named); it != std::sregex_iterator(); ++it)
            outcome.idsNamed.push_back(lower((*it)[1].str()));
        return outcome;
    };

    const Outcome complete = runPreset(kNoFault);
    ASSERT_FALSE(complete.failedStep);
    ASSERT_EQ(complete.idsNamed.size(), 9u);
    for (const std::string& old : {rootUuid, swapUuid, std::string("1234-abcd"), rootGuid}) {
        EXPECT_FALSE(complete.idsOnDisk.contains(old)) << old << " was not changed";
        EXPECT_EQ(std::count(complete.idsNamed.begin(), complete.idsNamed.end(), old), 0) << old;
    }
    const std::set<std::string> oldIds{rootUuid, swapUuid, "1234-abcd", rootGuid};
    for (std::uint64_t failing = 0; failing < complete.writes; ++failing) {
        const Outcome torn = runPreset(failing);
        EXPECT_TRUE(torn.failedStep || torn.copyBackFailed) << "write " << failing << " failed, unreported";
        for (const auto& id : torn.idsNamed)
            EXPECT_TRUE(torn.idsOnDisk.contains(id) || oldIds.contains(id))
                << "after a failure at write " << failing << " of " << complete.writes << ", a file names " << id
                << ", which the disk does not have";
    }
}

} // namespace
