#include "platform/log/log.h"
#include "postprocessing/common/mbr_chs.h"

#include "postprocessing/pp_handler.h"
#include "tests/support/mbr_builder.h"

#include <gtest/gtest.h>

#include <array>

namespace Libraries::KRO::PostProcessing::Common {
namespace {

using Triple = std::array<u8, 3>;

// The three table bytes of an LBA, computed the textbook way.
Triple expectedChs(u64 lba, u32 heads, u32 sectors)
{
    const u64 cylinder = lba / (u64(heads) * sectors);
    if (cylinder > 1023)
        return {0xFE, 0xFF, 0xFF};
    const u64 head = (lba / sectors) % heads;
    const u64 sector = lba % sectors + 1;
    return {u8(head), u8(sector | (cylinder >> 8) << 6), u8(cylinder)};
}

Triple tableChs(Platform::MemoryStorage& disk, int slot, bool end)
{
    const u8* at = disk.bytes().data() + 0x1BE + 16 * slot + (end ? 5 : 1);
    return {at[0], at[1], at[2]};
}

struct MbrChs : testing::Test {
    Ref<Platform::MemoryStorage> disk = makeRef<Platform::MemoryStorage>(512u, 16384u);
    Ref<Keeper> keeper = Keeper::create();
    u64 diskEntry = keeper->addEntry(KindDisk, {}, {}, 0, 0);

    void SetUp() override
    {
        TestSupport::writeMbrEntry(*disk, 0, 0, 0x83, 2048, 4096);
        // With 2 heads and 4 sectors a cylinder is 8 sectors: this one ends past cylinder 1023.
        TestSupport::writeMbrEntry(*disk, 0, 1, 0x07, 8000, 400);
        keeper->addObjectEntry(KindDiskStorage, nullptr, disk, diskEntry, 0);
    }
    void setGeometry(u32 c, u32 h, u32 s)
    {
        keeper->addEntry(KindDiskGeometry, {}, {PPHandler::encodeCHS(c, h, s)}, diskEntry, 0);
    }
};

TEST_F(MbrChs, EncodesFromTheTargetGeometry)
{
    setGeometry(1023, 2, 4);
    Platform::ScopedLogCapture log;
    EXPECT_EQ(adjustMbrCHS(keeper), StepResult::Ok);
    EXPECT_EQ(tableChs(*disk, 0, false), expectedChs(2048, 2, 4));
    EXPECT_EQ(tableChs(*disk, 0, true), expectedChs(2048 + 4096 - 1, 2, 4));
    // The start alone would fit; the whole partition does not.
    EXPECT_NE(expectedChs(8000, 2, 4), (Triple{0xFE, 0xFF, 0xFF}));
    EXPECT_EQ(tableChs(*disk, 1, false), (Triple{0xFE, 0xFF, 0xFF}));
    EXPECT_EQ(tableChs(*disk, 1, true), (Triple{0xFE, 0xFF, 0xFF}));
    EXPECT_TRUE(log.sink().contains("PP Common", 1, "cannot set chs for 8000, 400"));
}

TEST_F(MbrChs, MissingOrDegenerateGeometry)
{
    EXPECT_EQ(adjustMbrCHS(keeper), StepResult::Ok); // no geometry: every value not representable
    EXPECT_EQ(tableChs(*disk, 0, false), (Triple{0xFE, 0xFF, 0xFF}));

    setGeometry(1023, 0, 63); // no heads: cylinder 0, head 0, sector 1
    EXPECT_EQ(adjustMbrCHS(keeper), StepResult::Ok);
    EXPECT_EQ(tableChs(*disk, 0, false), (Triple{0x00, 0x01, 0x00}));
    EXPECT_EQ(tableChs(*disk, 0, true), (Triple{0x00, 0x01, 0x00}));
}

TEST_F(MbrChs, DisksWithoutATableAreSkipped)
{
    auto blank = makeRef<Platform::MemoryStorage>(512u, 64u);
    const u64 other = keeper->addEntry(KindDisk, {}, {}, 0, 0);
    keeper->addObjectEntry(KindDiskStorage, nullptr, blank, other, 0);
    keeper->addEntry(KindDisk, {}, {Variant::integer(1)}, 0, 0); // no storage at all
    Platform::ScopedLogCapture log;
    EXPECT_EQ(adjustMbrCHS(keeper), StepResult::Ok);
    EXPECT_TRUE(log.sink().contains("PP Common", 4, "Could not get Partition manager"));
    EXPECT_TRUE(log.sink().contains(
        "PP Common", 4, "Libraries::KRO::PostProcessing::Common::adjustMbrCHSCould not get storage for disk"));
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Common
