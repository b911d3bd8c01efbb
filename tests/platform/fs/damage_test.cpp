// A valid file system made by its own tool, one field broken at a time: each impossible value is
// refused with its own words, the family's record and the checker to run.

#include "platform/core/crc32c.h"
#include "platform/core/error.h"
#include "platform/fs/filesys_base.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <cstring>

namespace Platform {
namespace {

enum class Reseal { None, BtrfsChecksum };
// A field holding a random id is XORed, not overwritten: the written value could equal the made one.
enum class Apply { Overwrite, Flip };

struct Break {
    std::uint64_t offset;
    std::vector<std::uint8_t> bytes;
    std::string refusal;
    Reseal reseal = Reseal::None;
    Apply apply = Apply::Overwrite;
};

constexpr std::uint64_t kBtrfsSuper = 0x10000;

void reseal(std::vector<std::uint8_t>& image, Reseal how)
{
    if (how != Reseal::BtrfsChecksum)
        return;
    const std::uint32_t crc = crc32c(std::span(image).subspan(kBtrfsSuper + 0x20, 4096 - 0x20));
    std::memcpy(image.data() + kBtrfsSuper, &crc, 4); // little-endian, as the machine
}

// Each break applied alone to the made file system, which is put back afterwards.
void expectRefusals(std::vector<std::string> mkfs, std::uint64_t mib, const std::vector<Break>& breaks)
{
    TestSupport::TempDir dir;
    const std::string image = dir.file("fs.img");
    TestSupport::createImage(image, mib << 20);
    mkfs.push_back(image);
    TestSupport::runTool(mkfs);
    const auto storage = TestSupport::loadImage(image);
    ASSERT_TRUE(MountHelper::open(storage)->refusal().empty()) << "the made file system is valid";
    const std::vector<std::uint8_t> valid = storage->bytes();
    for (const Break& broken : breaks) {
        auto& bytes = storage->bytes();
        for (std::size_t i = 0; i < broken.bytes.size(); ++i) {
            std::uint8_t& byte = bytes.at(broken.offset + i);
            byte = broken.apply == Apply::Flip ? std::uint8_t(byte ^ broken.bytes[i]) : broken.bytes[i];
        }
        reseal(bytes, broken.reseal);
        const auto fs = MountHelper::open(storage);
        ASSERT_TRUE(fs) << broken.refusal;
        EXPECT_EQ(fs->refusal(), broken.refusal);
        EXPECT_EQ(MountHelper::probe(storage), FsNone);
        bytes = valid;
    }
}

TEST(Damage, FatBootSectors)
{
    const std::string fat16 = "the FAT16 boot sector is damaged: ", check = "; run fsck.fat first";
    expectRefusals(
        {"mkfs.fat", "-F", "16"}, 16,
        {
            {0x00, {0x00}, fat16 + "the boot sector does not start with a jump" + check},
            {0x1FE, {0x00, 0x00}, fat16 + "the boot signature 55 AA is missing" + check},
            {0x0B, {0x03, 0x00}, fat16 + "the bytes per sector, 3, are not 512, 1024, 2048 or 4096" + check},
            {0x0D, {0x03}, fat16 + "the sectors per cluster, 3, are not a power of two up to 128" + check},
            {0x0E, {0x00, 0x00}, fat16 + "there are no reserved sectors" + check},
            {0x10, {0x05}, fat16 + "the number of FATs, 5, is not 1 to 4" + check},
            {0x13, {0x00, 0x00}, fat16 + "the volume has no sectors" + check},
            {0x15, {0x11}, fat16 + "the media descriptor 17 is not 240 or 248 to 255" + check},
            {0x16, {0xFF, 0xFF}, fat16 + "the FATs and the root directory take the whole volume" + check},
            {0x13, {0xFF, 0xFF}, fat16 + "the volume is larger than its partition" + check},
            {0x11, {0x00, 0x00}, fat16 + "a volume of FAT12 or FAT16 size has no root directory entries" + check},
        });
    const std::string fat32 = "the FAT32 boot sector is damaged: ";
    expectRefusals({"mkfs.fat", "-F", "32", "-s", "1"}, 40,
                   {
                       {0x24, {0x00, 0x00, 0x00, 0x00}, fat32 + "the FAT has no sectors" + check},
                       {0x11,
                        {0x00, 0x02},
                        fat32 + "a volume of FAT32 size has root directory entries or a 16-bit FAT size" + check},
                   });
}

TEST(Damage, ExfatBootRegion)
{
    const std::string exfat = "the exFAT boot region is damaged: ", check = "; run fsck.exfat first";
    expectRefusals({"mkfs.exfat"}, 8,
                   {
                       {0x6C, {13}, exfat + "the sector size exponent 13 is not 9 to 12" + check},
                       {0x1FE, {0x00, 0x00}, exfat + "the boot signature 55 AA is missing" + check},
                       {20, {0x01}, exfat + "byte 20, which must be zero, is not" + check},
                       {0x48, {0, 0, 0, 0, 0, 0, 0, 0x80}, exfat + "the volume is larger than its partition" + check},
                       {0x64, {0xAA}, exfat + "the boot region fails its checksum" + check, Reseal::None, Apply::Flip},
                   });
}

TEST(Damage, NtfsBootSector)
{
    const std::string ntfs = "the NTFS boot sector is damaged: ", check = "; run chkdsk or ntfsfix first";
    const std::vector<std::uint8_t> huge{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00};
    expectRefusals(
        {"mkntfs", "-F", "-f", "-q"}, 8,
        {
            {0x1FE, {0x00, 0x00}, ntfs + "the boot signature 55 AA is missing" + check},
            {0x0B, {0x03, 0x00}, ntfs + "the bytes per sector, 3, are not a power of two from 256 to 4096" + check},
            {0x0D, {0x03}, ntfs + "the sectors per cluster are not a power of two" + check},
            {0x28, std::vector<std::uint8_t>(8, 0), ntfs + "the volume has no sectors" + check},
            {0x28, huge, ntfs + "the volume is larger than its partition" + check},
            {0x30, huge, ntfs + "the MFT starts beyond the volume's end" + check},
            {0x38, huge, ntfs + "the MFT mirror starts beyond the volume's end" + check},
            {0x40, {0x7F}, ntfs + "the MFT record size is impossible" + check},
            {0x44, {0x7F}, ntfs + "the index record size is impossible" + check},
        });
}

TEST(Damage, ExtSuperblock)
{
    const std::string ext = "the ext superblock is damaged: ", check = "; run e2fsck -f first";
    expectRefusals(
        {"mkfs.ext4", "-q", "-F"}, 8,
        {
            {1024 + 0x18, {7, 0, 0, 0}, ext + "the block size exponent 7 is above 6 (64 KiB blocks)" + check},
            {1024 + 0x04, {0xFF, 0xFF, 0xFF, 0x0F}, ext + "the file system is larger than its partition" + check},
        });
}

TEST(Damage, XfsSuperblock)
{
    const std::string xfs = "the XFS superblock is damaged: ", check = "; run xfs_repair first";
    expectRefusals({"mkfs.xfs", "-q", "-f"}, 300,
                   {
                       {4, {0, 0, 0, 3}, xfs + "the block size, 3, is not a power of two from 512 to 65536" + check},
                       {102, {0, 100}, xfs + "the sector size, 100, is not a power of two from 512 to 32768" + check},
                       {84, {0, 0, 0, 0}, xfs + "there are no allocation groups" + check},
                       {124, {1}, xfs + "the allocation group size does not fit its block-number width" + check},
                       {8, {0, 0, 0, 0x10, 0, 0, 0, 0}, xfs + "the file system is larger than its partition" + check},
                       {32, {0xAA}, xfs + "the superblock fails its checksum" + check, Reseal::None, Apply::Flip},
                   });
}

TEST(Damage, BtrfsSuperblock)
{
    const std::string btrfs = "the Btrfs superblock is damaged: ",
                      check = "; it is left alone (run btrfs check if the file system should be usable)";
    expectRefusals(
        {"mkfs.btrfs", "-q", "-f"}, 200,
        {
            {kBtrfsSuper + 0x30,
             {0x00, 0x00, 0x02},
             btrfs + "the superblock at byte 65536 says it lies at byte 131072" + check},
            {kBtrfsSuper + 0xC4,
             {0x01},
             btrfs + "the superblock is checksummed with something other than crc32c" + check},
            {kBtrfsSuper + 0x20,
             {0xAA},
             btrfs + "the superblock at byte 65536 fails its checksum" + check,
             Reseal::None,
             Apply::Flip},
            {kBtrfsSuper + 0x88, {0x02}, btrfs + "the file system spans 2 devices" + check, Reseal::BtrfsChecksum},
            {kBtrfsSuper + 0x70,
             {0, 0, 0, 0, 0, 0, 0, 0x01},
             btrfs + "the file system is larger than its partition" + check,
             Reseal::BtrfsChecksum},
        });
}

} // namespace
} // namespace Platform
