#include "platform/storage/staging_storage.h"

#include "platform/storage/memory_storage.h"
#include "tests/support/counting_storage.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

TEST(StagingStorage, HoldsWritesUntilCommit)
{
    auto base = makeRef<MemoryStorage>(512u, 16u);
    auto counted = makeRef<TestSupport::CountingStorage>(base);
    StagingStorage staging(counted);

    std::vector<std::uint8_t> sectors(3 * 512, 0);
    sectors[512] = 7;
    ASSERT_EQ(staging.write(4, 3, sectors.data()), 3u);
    EXPECT_EQ(base->bytes()[5 * 512], 0);
    std::vector<std::uint8_t> back(3 * 512);
    ASSERT_EQ(staging.read(4, 3, back.data()), 3u);
    EXPECT_EQ(back, sectors);

    ASSERT_TRUE(staging.commit());
    EXPECT_EQ(base->bytes()[5 * 512], 7);
    EXPECT_EQ(counted->sectorsWritten, 3u);
    EXPECT_EQ(staging.stagedSectors(), 0u);
}

TEST(StagingStorage, DeferredRangeIsWrittenLast)
{
    auto base = makeRef<MemoryStorage>(512u, 8u);
    auto counted = makeRef<TestSupport::CountingStorage>(base);
    StagingStorage staging(counted);
    std::vector<std::uint8_t> ones(512, 1);
    for (std::uint64_t sector : {2u, 6u})
        staging.write(sector, 1, ones.data());
    counted->writeBudget = 1; // the deferred sector 2 must be the one left out
    EXPECT_FALSE(staging.commit(2, 3));
    EXPECT_EQ(base->bytes()[6 * 512], 1);
    EXPECT_EQ(base->bytes()[2 * 512], 0);
}

} // namespace
} // namespace Platform

namespace Platform {
namespace {

// A change larger than the memory limit: pages wait in the spill file, reads and the commit find
// them there, and memory never holds more than the limit.
TEST(StagingStorage, PagesBeyondTheMemoryLimitWaitInTheSpillFile)
{
    constexpr std::uint64_t kPage = 64;
    auto base = makeRef<MemoryStorage>(512u, 12 * kPage);
    auto counted = makeRef<TestSupport::CountingStorage>(base);
    StagingStorage staging(counted, 2 * kPage * 512);
    for (std::uint64_t page = 0; page < 12; ++page) {
        std::vector<std::uint8_t> sectors(3 * 512, std::uint8_t(page + 1));
        ASSERT_EQ(staging.write(page * kPage + 10, 3, sectors.data()), 3u);
        EXPECT_LE(staging.memoryInUse(), 2 * kPage * 512);
    }
    EXPECT_EQ(staging.spilledPages(), 10u);
    std::vector<std::uint8_t> back(512);
    for (std::uint64_t page = 0; page < 12; ++page) {
        ASSERT_EQ(staging.read(page * kPage + 11, 1, back.data()), 1u);
        EXPECT_EQ(back[0], page + 1) << "page " << page;
    }
    EXPECT_LE(staging.memoryInUse(), 2 * kPage * 512);
    EXPECT_EQ(counted->sectorsWritten, 0u);

    ASSERT_TRUE(staging.commit());
    for (std::uint64_t page = 0; page < 12; ++page) {
        EXPECT_EQ(base->bytes()[(page * kPage + 9) * 512], 0);
        EXPECT_EQ(base->bytes()[(page * kPage + 12) * 512], page + 1);
        EXPECT_EQ(base->bytes()[(page * kPage + 13) * 512], 0);
    }
    EXPECT_EQ(counted->sectorsWritten, 36u);
}

} // namespace
} // namespace Platform
