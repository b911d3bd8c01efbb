#include "postprocessing/keeper_obj.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing {
namespace {

u64 addDisk(Keeper& keeper, const char* path, u64 id = 0)
{
    return keeper.addEntry(KindDisk, {}, {Variant::string(path)}, id, 0);
}

TEST(Keeper, StartsEmptyWithEverySwitchOffAndNoResults)
{
    const auto keeper = Keeper::create();
    ASSERT_TRUE(keeper);
    for (s32 slot = 0; slot < kStepCount; ++slot) {
        EXPECT_FALSE(keeper->isEnabled(slot));
        EXPECT_EQ(keeper->getResult(slot), StepResult::NotAccessed);
    }
    for (u64 kind = 0; kind <= 17; ++kind)
        EXPECT_EQ(keeper->findNext(kind, 0, 0), 0u);
    EXPECT_EQ(keeper->getKind(0), KindNone);
}

TEST(Keeper, HandsOutIndicesDownwardAndDoublesWhenFull)
{
    KeeperObj keeper;
    EXPECT_EQ(addDisk(keeper, "a"), 15u);
    EXPECT_EQ(addDisk(keeper, "b"), 14u);
    EXPECT_EQ(addDisk(keeper, "c"), 13u);
    for (u64 expected = 12; expected >= 1; --expected)
        EXPECT_EQ(addDisk(keeper, "x"), expected);
    EXPECT_EQ(keeper.capacity(), 16u);

    EXPECT_EQ(addDisk(keeper, "sixteenth"), 31u);
    EXPECT_EQ(keeper.capacity(), 32u);
    EXPECT_EQ(addDisk(keeper, "seventeenth"), 30u);
    // Old entries keep their indices across the growth.
    EXPECT_EQ(*keeper.getTo(15)[0].asString(), "a");
    EXPECT_EQ(*keeper.getTo(31)[0].asString(), "sixteenth");
}

TEST(Keeper, FindNextWalksMatchesInIndexOrderFilteredById)
{
    KeeperObj keeper;
    const u64 disk = addDisk(keeper, "/dev/sda");                                 // 15
    const u64 first = keeper.addEntry(KindPartition, {}, {}, disk, 0);            // 14
    const u64 other = keeper.addEntry(KindPartition, {}, {}, 99, 0);              // 13
    const u64 second = keeper.addEntry(KindPartition, {}, {}, disk, 0);           // 12
    keeper.addEntry(KindPartitionOffset, {}, {Variant::integer(2048)}, first, 0); // 11

    EXPECT_EQ(keeper.findNext(KindPartition, 0, disk), second);
    EXPECT_EQ(keeper.findNext(KindPartition, second, disk), first);
    EXPECT_EQ(keeper.findNext(KindPartition, first, disk), 0u);

    std::vector<u64> all;
    for (u64 i = keeper.findNext(KindPartition, 0, 0); i; i = keeper.findNext(KindPartition, i, 0))
        all.push_back(i);
    EXPECT_EQ(all, (std::vector<u64>{second, other, first}));
}

TEST(Keeper, InvalidIndicesReadAsTheEmptyEntryAndReplaceIsIgnored)
{
    KeeperObj keeper;
    const u64 index =
        keeper.addObjectEntry(KindDiskIdChange, ByteArray::create(std::vector<u8>{1, 2, 3, 4}), nullptr, 7, 0);
    EXPECT_TRUE(Platform::refCast<ByteArray>(keeper.getFromObject(index)));
    EXPECT_FALSE(keeper.getToObject(index));
    EXPECT_TRUE(keeper.getFrom(index).empty());

    EXPECT_EQ(keeper.addEntry(KindDisk, {Variant::integer(1)}, {}, 0, 3), 3u);
    EXPECT_EQ(keeper.getKind(3), KindNone);
    EXPECT_EQ(keeper.getId(3), 0u);
    EXPECT_TRUE(keeper.getFrom(1000).empty());
    EXPECT_FALSE(keeper.getFromObject(1000));

    // Replacing a valid entry keeps its index and turns it into the new entry.
    EXPECT_EQ(keeper.addEntry(KindPartition, {Variant::integer(5)}, {}, 8, index), index);
    EXPECT_EQ(keeper.getKind(index), KindPartition);
    EXPECT_EQ(keeper.getId(index), 8u);
    EXPECT_FALSE(keeper.getFromObject(index));
}

TEST(Keeper, ResultsAndSucceeded)
{
    KeeperObj keeper;
    keeper.setSucceeded(StepMbrChs, true);
    EXPECT_EQ(keeper.getResult(StepMbrChs), StepResult::Ok);
    EXPECT_TRUE(keeper.hasSucceeded(StepMbrChs));
    keeper.setSucceeded(StepMbrChs, false);
    EXPECT_EQ(keeper.getResult(StepMbrChs), StepResult::Failed);
    keeper.setResult(StepMbrChs, StepResult::NothingFound);
    EXPECT_FALSE(keeper.hasSucceeded(StepMbrChs));
}

TEST(Keeper, ClearFreesEntriesAndHandsThemOutAsANewKeeperWould)
{
    KeeperObj keeper;
    for (int i = 0; i < 3; ++i)
        addDisk(keeper, "d");
    keeper.setEnabled(StepFstab, true);
    keeper.setResult(StepFstab, StepResult::Ok);

    keeper.clear(false);
    EXPECT_TRUE(keeper.isEnabled(StepFstab));
    EXPECT_EQ(keeper.getResult(StepFstab), StepResult::NotAccessed);
    EXPECT_EQ(keeper.findNext(KindDisk, 0, 0), 0u);
    EXPECT_EQ(addDisk(keeper, "again"), 15u);
    EXPECT_EQ(addDisk(keeper, "again"), 14u);

    keeper.clear(true);
    EXPECT_FALSE(keeper.isEnabled(StepFstab));
}

TEST(Keeper, CloneSettingsCopiesSwitchesAndResultsButNoEntries)
{
    KeeperObj keeper;
    addDisk(keeper, "d");
    keeper.setEnabled(StepGrubConfig, true);
    keeper.setResult(StepSyslinux, StepResult::Failed);

    const auto clone = keeper.cloneSettings();
    EXPECT_TRUE(clone->isEnabled(StepGrubConfig));
    EXPECT_FALSE(clone->isEnabled(StepFstab));
    EXPECT_EQ(clone->getResult(StepSyslinux), StepResult::Failed);
    EXPECT_EQ(clone->findNext(KindDisk, 0, 0), 0u);
}

TEST(StepResultFold, FailedStaysAndOkOnlyReplacesNothingFound)
{
    EXPECT_EQ(foldResult(StepResult::NothingFound, StepResult::Ok), StepResult::Ok);
    EXPECT_EQ(foldResult(StepResult::Ok, StepResult::NothingFound), StepResult::Ok);
    EXPECT_EQ(foldResult(StepResult::Failed, StepResult::Ok), StepResult::Failed);
    EXPECT_EQ(foldResult(StepResult::Ok, StepResult::Failed), StepResult::Failed);
    EXPECT_EQ(foldResult(StepResult::NothingFound, StepResult::NothingFound), StepResult::NothingFound);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing
