#include "postprocessing/bootloader/grub_config.h"
#include "postprocessing/bootloader/raspberry_pi.h"

#include "platform/log/log.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing::Bootloader {
namespace {

const UuidReplaceMap kFsIds{{"0a1b-2c3d", "4e5f-6071"}};
const UuidReplaceMap kPartitionIds{{"1a2b3c4d-02", "5e6f7a8b-02"}};
const LinuxIdMap kLinuxIds{{"HD_Model_500_W123-part2", "SSD_Model_860_S4X-part2"}};

TEST(GrubLines, KernelOptionsFollowTheirMaps)
{
    Platform::ScopedLogCapture log;
    EXPECT_EQ(rewriteKernelLine("linux /vmlinuz root=UUID=0a1b-2c3d ro  resume=PARTUUID=1a2b3c4d-02 quiet", kFsIds,
                                kPartitionIds, kLinuxIds),
              "linux /vmlinuz root=UUID=4e5f-6071 ro  resume=PARTUUID=5e6f7a8b-02 quiet");
    EXPECT_EQ(rewriteKernelLine("linux /vmlinuz root=/dev/disk/by-id/HD_Model_500_W123-part2", kFsIds, kPartitionIds,
                                kLinuxIds),
              "linux /vmlinuz root=/dev/disk/by-id/SSD_Model_860_S4X-part2");
    const std::string plain = "linux /vmlinuz root=/dev/sda2 ro";
    EXPECT_EQ(rewriteKernelLine(plain, kFsIds, kPartitionIds, kLinuxIds), plain);
    EXPECT_TRUE(log.sink().contains("PP Bootloader", 3, "Unsupported drive definition /dev/sda2 in line " + plain));
}

TEST(GrubLines, SearchUuidArgumentsAreFoundAfterTheOptions)
{
    EXPECT_EQ(rewriteSearchLine("search --no-floppy --fs-uuid --set=root 0a1b-2c3d", false, kFsIds),
              "search --no-floppy --fs-uuid --set=root 4e5f-6071");
    EXPECT_EQ(rewriteSearchLine("search -u 0A1B-2C3D", false, kFsIds), "search -u 4E5F-6071");
    EXPECT_EQ(rewriteSearchLine("search.fs_uuid 0a1b-2c3d root hd0,gpt2", true, kFsIds),
              "search.fs_uuid 4e5f-6071 root hd0,gpt2");
}

TEST(PiCommandLine, OnlyTheRootOptionChanges)
{
    Platform::ScopedLogCapture log;
    bool modified = false;
    EXPECT_EQ(rewriteCommandLine("console=tty1 root=PARTUUID=1a2b3c4d-02 rootfstype=ext4 rootwait", kFsIds,
                                 kPartitionIds, modified),
              "console=tty1 root=PARTUUID=5e6f7a8b-02 rootfstype=ext4 rootwait");
    EXPECT_TRUE(modified);

    modified = false;
    EXPECT_EQ(rewriteCommandLine("root=/dev/mmcblk0p2 rootwait", kFsIds, kPartitionIds, modified),
              "root=/dev/mmcblk0p2 rootwait");
    EXPECT_TRUE(modified); // written back, unchanged in content
    EXPECT_TRUE(log.sink().contains("PP Bootloader", 1, "Ignoring unknown root specifier: /dev/mmcblk0p2"));
    modified = false;
    EXPECT_EQ(rewriteCommandLine("root=LABEL=rootfs quiet", kFsIds, kPartitionIds, modified),
              "root=LABEL=rootfs quiet");
    EXPECT_TRUE(modified);
    EXPECT_TRUE(log.sink().contains("PP Bootloader", 1, "Ignoring unknown root specifier: LABEL"));

    // A final line feed stays part of the id, which is then not found.
    modified = false;
    EXPECT_EQ(rewriteCommandLine("quiet root=PARTUUID=1a2b3c4d-02\n", kFsIds, kPartitionIds, modified),
              "quiet root=PARTUUID=1a2b3c4d-02\n");
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Bootloader
