#include "postprocessing/windows/lba_patch.h"

#include "platform/storage/memory_storage.h"
#include "tests/support/counting_storage.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing::Windows {
namespace {

u64 addTarget(Keeper& keeper, const Ref<Interfaces::Storage>& storage)
{
    const u64 id = keeper.addEntry(KindPartition, {}, {}, 1, 0);
    keeper.addObjectEntry(KindPartitionStorage, nullptr, storage, id, 0);
    return id;
}

Ref<Platform::MemoryStorage> sectorWith(std::initializer_list<u8> at217)
{
    auto storage = makeRef<Platform::MemoryStorage>(512u, 4u);
    for (std::size_t i = 0; i < 512; ++i)
        storage->bytes()[i] = u8(i * 7);
    std::copy(at217.begin(), at217.end(), storage->bytes().begin() + 217);
    return storage;
}

TEST(LbaPatch, ReplacesTheJumpWithNopsAndNothingElse)
{
    auto keeper = Keeper::create();
    auto storage = sectorWith({0x0F, 0x82, 0x3A, 0x00});
    auto before = storage->bytes();
    addTarget(*keeper, storage);

    EXPECT_EQ(applyLbaPatch(keeper), StepResult::Ok);
    std::copy_n(std::vector<u8>{0x90, 0x90, 0x90, 0x90}.begin(), 4, before.begin() + 217);
    EXPECT_EQ(storage->bytes(), before);

    // Patched already: not written again.
    auto counted = makeRef<TestSupport::CountingStorage>(storage);
    auto again = Keeper::create();
    addTarget(*again, counted);
    EXPECT_EQ(applyLbaPatch(again), StepResult::NothingFound);
    EXPECT_EQ(counted->sectorsWritten, 0u);
}

TEST(LbaPatch, UnreadableTargetFailsTheStepButOthersAreStillPatched)
{
    auto keeper = Keeper::create();
    auto good = sectorWith({0x0F, 0x82, 0x3A, 0x00});
    addTarget(*keeper, makeRef<Platform::MemoryStorage>(512u, 0u));
    addTarget(*keeper, good);
    EXPECT_EQ(applyLbaPatch(keeper), StepResult::Failed);
    EXPECT_EQ(good->bytes()[217], 0x90);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Windows
