#include "postprocessing/bootloader/syslinux.h"

#include "platform/fs/filesys.h"
#include "platform/log/log.h"
#include "tests/support/command.h"
#include "tests/support/keeper_builder.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing::Bootloader {
namespace {

constexpr u64 kPartitionSectors = 16 << 11;

// A disk with two FAT16 partitions, each made bootable by syslinux itself.
struct Disk {
    TestSupport::TempDir dir;
    Ref<Platform::MemoryStorage> storage;
    Ref<Keeper> keeper = Keeper::create();

    Disk()
    {
        const std::string disk = dir.file("disk.img"), part = dir.file("part.img");
        TestSupport::createImage(disk, (2048 + 2 * kPartitionSectors) * 512);
        TestSupport::runTool({"sh", "-c",
                              "printf 'label: dos\\nstart=2048, size=32768, type=6\\nsize=32768, type=6\\n' | "
                              "sfdisk -q " +
                                  disk});
        for (u64 start : {u64(2048), 2048 + kPartitionSectors}) {
            std::filesystem::remove(part);
            TestSupport::createImage(part, kPartitionSectors * 512);
            TestSupport::runTool({"mkfs.fat", "-F", "16", part});
            TestSupport::runTool({"syslinux", "--install", part});
            TestSupport::runTool({"dd", "if=" + part, "of=" + disk, "bs=512", "seek=" + std::to_string(start),
                                  "conv=notrunc", "status=none"});
        }
        storage = TestSupport::loadImage(disk);
        TestSupport::addDiskWithPartitions(*keeper, storage);
    }
    u8* partitionBytes(int index) { return storage->bytes().data() + (2048 + u64(index) * kPartitionSectors) * 512; }
    std::vector<u8> partition(int index)
    {
        return {partitionBytes(index), partitionBytes(index) + kPartitionSectors * 512};
    }
};

TEST(SyslinuxStep, AFailedPartitionIsNotHiddenByALaterSuccessAndIsLeftAsItWas)
{
    Disk disk;
    // The first boot sector's code no longer loads its pointer the way this code knows.
    u8* boot = disk.partitionBytes(0);
    for (std::size_t i = 0x3E; i + 8 < 0x1F8; ++i)
        if (boot[i] == 0x66 && boot[i + 1] == 0xB8 && boot[i + 6] == 0x66 && boot[i + 7] == 0xBA)
            boot[i] = 0x90;
    const auto firstBefore = disk.partition(0);
    const auto secondBefore = disk.partition(1);

    Platform::ScopedLogCapture log;
    EXPECT_EQ(adjustSyslinux(disk.keeper), StepResult::Failed);
    EXPECT_TRUE(log.sink().contains("PP Bootloader", 4, "Could not update BPB loader /ldlinux.sys"));
    EXPECT_EQ(disk.partition(0), firstBefore);
    // The second was patched for where it lies (it did not move: only the partition-relative
    // pointer the installer wrote stays, so nothing needs writing).
    EXPECT_TRUE(log.sink().contains("PP Bootloader", 1, "Adjusting Syslinux BPB loader"));
    EXPECT_EQ(disk.partition(1), secondBefore);
}

TEST(SyslinuxStep, OtherBootSectorsMissingCoresAndLargeSectorsAreSkipped)
{
    Disk disk;
    // First partition: a boot sector syslinux did not write. Second: its core is gone.
    std::fill_n(disk.partitionBytes(0) + 3, 8, u8('X'));
    {
        const auto window = Platform::WindowStorage::create(disk.storage, 2048 + kPartitionSectors, kPartitionSectors);
        const auto fs = Platform::Filesys::create(window, Platform::OpenFlags::FileSystemByPath);
        ASSERT_TRUE(fs && fs->removeFile("/ldlinux.sys") && fs->flush());
    }
    const auto before = disk.storage->bytes();
    EXPECT_EQ(adjustSyslinux(disk.keeper), StepResult::NothingFound);
    EXPECT_EQ(disk.storage->bytes(), before);

    // A disk of 4096-byte sectors, whatever its first sector holds.
    Disk copy;
    auto large = makeRef<Platform::MemoryStorage>(4096u, 64u);
    std::copy_n(copy.partitionBytes(0), 512, large->bytes().begin());
    auto keeper = Keeper::create();
    const u64 partition = keeper->addEntry(KindPartition, {}, {}, 0, 0);
    keeper->addObjectEntry(KindPartitionStorage, nullptr, large, partition, 0);
    Platform::ScopedLogCapture log;
    EXPECT_EQ(adjustSyslinux(keeper), StepResult::NothingFound);
    EXPECT_TRUE(log.sink().contains("PP Bootloader", 3, "Disk with unsupported sector size 4096"));
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Bootloader
