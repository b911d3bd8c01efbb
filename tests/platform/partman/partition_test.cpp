#include "platform/partman/partition.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

constexpr Guid kBasicData = guidFromText("EBD0A0A2-B9E5-4433-87C0-68B6B72699C7");
constexpr Guid kEfiSystem = guidFromText("C12A7328-F81F-11D2-BA4B-00A0C93EC93B");
constexpr Guid kLinuxData = guidFromText("0FC63DAF-8483-4772-8E79-3D69D8477DE4");

TEST(Partition, GuidTextIsReadMixedEndian)
{
    EXPECT_EQ(kBasicData[0], 0xA2);
    EXPECT_EQ(kBasicData[3], 0xEB);
    EXPECT_EQ(kBasicData[4], 0xE5);
    EXPECT_EQ(kBasicData[8], 0x87);
    EXPECT_EQ(kBasicData[15], 0xC7);
}

TEST(Partition, DerivedIdsRoundTripAndAreNeverVersionFour)
{
    const Guid uuid = Partition::getUUIDFromDiskIDAndEntry(0xDEADBEEF, 5);
    std::uint32_t signature = 0, entry = 0;
    ASSERT_TRUE(Partition::getDiskIDAndEntryFromUUID(uuid, signature, entry));
    EXPECT_EQ(signature, 0xDEADBEEFu);
    EXPECT_EQ(entry, 5u);
    EXPECT_NE(uuid[8] & 0xC0, 0x80); // not the RFC 4122 variant a random id carries
    EXPECT_FALSE(Partition::getDiskIDAndEntryFromUUID(kLinuxData, signature, entry));
}

TEST(Partition, TypesFitTheirFileSystems)
{
    EXPECT_TRUE(Partition::validTypeUUID(FsNtfs, Partition::mbrTypeUUID(0x07)));
    EXPECT_TRUE(Partition::validTypeUUID(FsNtfs, Partition::mbrTypeUUID(0x27)));
    EXPECT_FALSE(Partition::validTypeUUID(FsNtfs, Partition::mbrTypeUUID(0x83)));
    EXPECT_FALSE(Partition::validTypeUUID(FsFat32, Partition::mbrTypeUUID(0x07)));
    EXPECT_TRUE(Partition::validTypeUUID(FsFat32, Partition::mbrTypeUUID(0xEF)));
    EXPECT_TRUE(Partition::validTypeUUID(FsFat32, kEfiSystem));
    EXPECT_FALSE(Partition::validTypeUUID(FsExt4, kBasicData));
    EXPECT_TRUE(Partition::validTypeUUID(FsBtrfs, kLinuxData));
    EXPECT_FALSE(Partition::validTypeUUID(0x12345, kLinuxData));

    EXPECT_EQ(Partition::defaultTypeUUID(FsFat32, TableType::Mbr), Partition::mbrTypeUUID(0x0C));
    EXPECT_EQ(Partition::defaultTypeUUID(FsXfs, TableType::Mbr), Partition::mbrTypeUUID(0x83));
    EXPECT_EQ(Partition::defaultTypeUUID(FsExfat, TableType::Gpt), kBasicData);
    EXPECT_EQ(Partition::defaultTypeUUID(FsExt3, TableType::Gpt), kLinuxData);
}

TEST(Partition, MbrPartitionsAcceptOnlyTheirOwnForms)
{
    Partition mbr(TableType::Mbr, 0, 2048, 100, Partition::getUUIDFromDiskIDAndEntry(0, 0),
                  Partition::mbrTypeUUID(0x83), 0, 0);
    EXPECT_FALSE(mbr.setTypeUUID(kLinuxData));
    EXPECT_TRUE(mbr.setTypeUUID(Partition::mbrTypeUUID(0x07)));
    EXPECT_FALSE(mbr.setUUID(kLinuxData));
    EXPECT_TRUE(mbr.modified());

    Partition gpt(TableType::Gpt, 0, 2048, 100, kLinuxData, kLinuxData, 0, 0);
    EXPECT_FALSE(gpt.setStartCHS(0x010100));
    EXPECT_FALSE(gpt.modified());
}

} // namespace
} // namespace Platform
