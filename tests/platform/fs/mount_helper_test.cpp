#include "platform/fs/filesys_base.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/fs/exfat/volume.h"
#include "tests/support/command.h"
#include "tests/support/counting_storage.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

using TestSupport::runTool;

// A file system made by its own mkfs, as a memory storage.
Ref<MemoryStorage> made(TestSupport::TempDir& dir, std::vector<std::string> mkfs, std::uint64_t mib = 64)
{
    const std::string image = dir.file("fs.img");
    TestSupport::createImage(image, mib << 20);
    mkfs.push_back(image);
    runTool(mkfs);
    return TestSupport::loadImage(image);
}

TEST(MountHelper, ProbesByTheFileSystemsOwnStructures)
{
    TestSupport::TempDir dir;
    EXPECT_EQ(MountHelper::probe(made(dir, {"mkfs.fat", "-F", "12"}, 8)), FsFat12);
    EXPECT_EQ(MountHelper::probe(made(dir, {"mkfs.fat", "-F", "16"})), FsFat16);
    EXPECT_EQ(MountHelper::probe(made(dir, {"mkfs.fat", "-F", "32", "-s", "1"})), FsFat32);
    EXPECT_EQ(MountHelper::probe(made(dir, {"mkfs.exfat"})), FsExfat);
    EXPECT_EQ(MountHelper::probe(made(dir, {"mkntfs", "-F", "-f", "-q"})), FsNtfs);
    EXPECT_EQ(MountHelper::probe(made(dir, {"mkfs.ext2", "-q", "-F"})), FsExt2);
    EXPECT_EQ(MountHelper::probe(made(dir, {"mkfs.ext3", "-q", "-F"})), FsExt3);
    EXPECT_EQ(MountHelper::probe(made(dir, {"mkfs.ext4", "-q", "-F"})), FsExt4);
    EXPECT_EQ(MountHelper::probe(makeRef<MemoryStorage>(512u, 64u)), FsNone);
    EXPECT_STREQ(MountHelper::typeName(FsExfat), "exFAT");
}

// Every detector looks at the first sectors; none of them is read from the disk twice.
TEST(MountHelper, AProbeReadsEachSectorOnce)
{
    TestSupport::TempDir dir;
    for (const std::vector<std::string>& mkfs : {std::vector<std::string>{"mkswap"},
                                                 {"mkfs.xfs", "-q", "-f"},
                                                 {"mkfs.fat", "-F", "32", "-s", "1"},
                                                 {"mkfs.ext4", "-q", "-F"}}) {
        const auto counting = makeRef<TestSupport::CountingStorage>(made(dir, mkfs, 300));
        EXPECT_TRUE(MountHelper::open(counting)) << mkfs[0];
        EXPECT_GT(counting->sectorsRead, 0u);
        EXPECT_EQ(counting->mostReadsOfOneSector, 1u) << mkfs[0];
    }
    // A damaged one is told by its signature from the same reads.
    auto fat = made(dir, {"mkfs.fat", "-F", "32", "-s", "1"}, 300);
    fat->bytes()[0x0D] = 3; // sectors per cluster: no power of two
    const auto counting = makeRef<TestSupport::CountingStorage>(fat);
    const auto damaged = MountHelper::open(counting);
    ASSERT_TRUE(damaged);
    EXPECT_FALSE(damaged->refusal().empty());
    EXPECT_EQ(counting->mostReadsOfOneSector, 1u);
}

TEST(MountHelper, ExfatChecksumGuardsTheBootRegion)
{
    TestSupport::TempDir dir;
    auto storage = made(dir, {"mkfs.exfat"});
    auto volume = MountHelper::createFilesysBase(storage, FsExfat);
    ASSERT_TRUE(volume);
    const std::uint8_t serial[] = {1, 2, 3, 4};
    ASSERT_TRUE(volume->setVolumeId(serial));
    // Both regions still check out, and the backup carries the serial too.
    const auto& bytes = storage->bytes();
    for (std::size_t region : {0u, 12u * 512}) {
        const std::span<const std::uint8_t> boot(bytes.data() + region, 12 * 512);
        EXPECT_EQ(ExfatVolume::bootChecksum(boot, 512), ByteView(boot).u32(11 * 512));
        EXPECT_EQ(bytes[region + 0x64], 1);
    }
    storage->bytes()[0x65] ^= 0xFF; // a change the checksum does not know of
    const auto before = storage->bytes();
    const auto damaged = MountHelper::open(storage);
    ASSERT_TRUE(damaged); // still exFAT by its name, but refused with the reason
    EXPECT_EQ(damaged->type(), FsExfat);
    EXPECT_FALSE(damaged->setVolumeId(serial));
    EXPECT_FALSE(damaged->setPartitionOffset(2048));
    EXPECT_NE(Error::text().find("run fsck.exfat first"), std::string::npos);
    EXPECT_EQ(storage->bytes(), before);
    EXPECT_EQ(MountHelper::probe(storage), FsNone); // no tool can handle it

    // An external ext journal is no damaged file system: nothing to refuse, nothing to change.
    EXPECT_FALSE(MountHelper::open(made(dir, {"mke2fs", "-q", "-F", "-O", "journal_dev", "-b", "4096"}, 16)));
}

// 2^55 sectors of 512 bytes is 2^64 bytes: a size check that multiplies would wrap to 0 and
// take the volume for one that fits an 8 MiB image.
TEST(MountHelper, ASizeThatWrapsWhenMultipliedIsNoFit)
{
    TestSupport::TempDir dir;
    auto storage = made(dir, {"mkfs.exfat"}, 8);
    ASSERT_EQ(MountHelper::probe(storage), FsExfat);
    auto& bytes = storage->bytes();
    ByteWriter(bytes).u64(0x48, std::uint64_t(1) << 55);
    // The boot checksum made right again, as a crafted image would have it.
    const std::uint32_t checksum = ExfatVolume::bootChecksum(std::span(bytes).first(12 * 512), 512);
    for (std::size_t at = 11 * 512; at < 12 * 512; at += 4)
        ByteWriter(bytes).u32(at, checksum);
    EXPECT_EQ(MountHelper::probe(storage), FsNone);
}

TEST(MountHelper, FamiliesWithoutARecordedOffsetSayNotSupported)
{
    TestSupport::TempDir dir;
    auto volume = MountHelper::createFilesysBase(made(dir, {"mkfs.ext4", "-q", "-F"}), FsExt4);
    ASSERT_TRUE(volume);
    Error::set(Error::None);
    EXPECT_FALSE(volume->setPartitionOffset(2048));
    EXPECT_EQ(Error::get(), Error::NotSupported);
    EXPECT_FALSE(MountHelper::createFilesysBase(made(dir, {"mkfs.fat", "-F", "16"}), FsNtfs));
    const std::uint8_t shortId[] = {1, 2};
    EXPECT_FALSE(volume->setVolumeId(shortId));
    EXPECT_NE(Error::text().find("16 bytes"), std::string::npos);
}

} // namespace
} // namespace Platform
