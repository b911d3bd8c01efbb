#include "platform/storage/undo_storage.h"

#include "platform/storage/cached_storage.h"
#include "platform/storage/memory_budget.h"
#include "platform/storage/memory_storage.h"
#include "platform/storage/window_storage.h"
#include "tests/support/counting_storage.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace Platform {
namespace {

std::vector<std::uint8_t> filled(std::size_t sectors, std::uint8_t value)
{
    return std::vector<std::uint8_t>(sectors * 512, value);
}

// Overlapping writes, one sector written three times: rollback gives back the first contents.
TEST(UndoStorage, RollbackPutsBackWhatTheSectorsHeldBeforeTheChange)
{
    auto base = makeRef<MemoryStorage>(512u, 16u);
    for (std::size_t i = 0; i < base->bytes().size(); ++i)
        base->bytes()[i] = std::uint8_t(i / 512);
    const auto original = base->bytes();
    UndoStorage undo(base);
    ASSERT_EQ(undo.write(4, 3, filled(3, 0xA1).data()), 3u);
    ASSERT_EQ(undo.write(5, 4, filled(4, 0xB2).data()), 4u);
    ASSERT_EQ(undo.write(6, 1, filled(1, 0xC3).data()), 1u);
    EXPECT_EQ(undo.savedSectors(), 5u); // 4..8, each once
    EXPECT_EQ(base->bytes()[6 * 512], 0xC3);
    ASSERT_TRUE(undo.rollback());
    EXPECT_EQ(base->bytes(), original);
    EXPECT_EQ(undo.savedSectors(), 0u);
}

// Over a window of a cache: what the step had changed before is copied and put back as it was;
// what the disk still held is not copied (the change holds no memory for it) and the cache puts
// it back; after a write-back in between, that can no longer be done and the rollback says so.
TEST(UndoStorage, OverACacheOnlyWhatTheCacheHadChangedIsCopied)
{
    auto disk = makeRef<MemoryStorage>(512u, 256u);
    for (std::size_t i = 0; i < disk->bytes().size(); ++i)
        disk->bytes()[i] = std::uint8_t(i / 512);
    const auto original = disk->bytes();
    const auto cache = makeRef<CachedStorage>(disk);
    ASSERT_EQ(cache->write(5, 1, filled(1, 0x11).data()), 1u); // an earlier change of the step
    const auto window = WindowStorage::create(cache, 2, 100);
    {
        UndoStorage undo(window);
        const std::size_t memoryBefore = MemoryBudget::inUse();
        ASSERT_EQ(undo.write(0, 20, filled(20, 0x22).data()), 20u); // disk sectors 2..21
        EXPECT_EQ(MemoryBudget::inUse() - memoryBefore, 512u) << "one sector copied: the one changed before";
        EXPECT_EQ(undo.savedSectors(), 20u);
        ASSERT_TRUE(undo.rollback());
    }
    EXPECT_EQ(cache->changedSectors(), 1u);
    std::vector<std::uint8_t> sector(512);
    cache->read(5, 1, sector.data());
    EXPECT_EQ(sector, filled(1, 0x11));
    cache->read(9, 1, sector.data());
    EXPECT_EQ(sector, std::vector<std::uint8_t>(512, 9));
    EXPECT_EQ(cache->writeBack(), "");
    EXPECT_EQ(disk->bytes()[5 * 512], 0x11);
    EXPECT_TRUE(std::equal(disk->bytes().begin() + 6 * 512, disk->bytes().end(), original.begin() + 6 * 512));

    UndoStorage undo(window);
    ASSERT_EQ(undo.write(10, 1, filled(1, 0x33).data()), 1u);
    EXPECT_EQ(cache->writeBack(), "");
    EXPECT_FALSE(undo.rollback()) << "the disk holds the change now: nothing to put it back from";
}

TEST(UndoStorage, KeepEndsTheChangeAndAFailedRestoreIsReported)
{
    auto base = makeRef<MemoryStorage>(512u, 8u);
    auto counted = makeRef<TestSupport::CountingStorage>(base);
    UndoStorage undo(counted);
    undo.write(1, 1, filled(1, 1).data());
    undo.keep();
    undo.write(2, 1, filled(1, 2).data());
    EXPECT_EQ(undo.savedSectors(), 1u);
    counted->writeBudget = counted->sectorsWritten; // the disk stops taking writes
    EXPECT_FALSE(undo.rollback());
    EXPECT_EQ(base->bytes()[1 * 512], 1); // kept
    EXPECT_EQ(base->bytes()[2 * 512], 2); // could not be restored
}

// Without the old contents there is nothing to go back to: the write is refused.
TEST(UndoStorage, RefusesToWriteWhatItCannotReadFirst)
{
    class Unreadable : public MemoryStorage {
    public:
        Unreadable() : MemoryStorage(512, 8) {}
        std::uint64_t read(std::uint64_t, std::uint64_t, void*) override { return 0; }
    };
    auto base = makeRef<Unreadable>();
    UndoStorage undo(base);
    EXPECT_EQ(undo.write(3, 1, filled(1, 9).data()), 0u);
    EXPECT_EQ(base->bytes()[3 * 512], 0);
}

} // namespace
} // namespace Platform
