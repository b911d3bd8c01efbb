#include "platform/storage/sector_set.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

// Runs that touch or overlap become one; counts and lookups see every sector once.
TEST(SectorSet, MergesTouchingRunsAndCountsEachSectorOnce)
{
    SectorSet set;
    set.insert(10, 20);
    set.insert(30, 40);
    set.insert(20, 25); // touches the first run
    set.insert(35, 50); // overlaps the second
    set.insert(5, 5);   // empty
    EXPECT_EQ(set.size(), 15u + 20u);
    EXPECT_TRUE(set.contains(10));
    EXPECT_TRUE(set.contains(24));
    EXPECT_FALSE(set.contains(25));
    EXPECT_FALSE(set.contains(29));
    EXPECT_TRUE(set.contains(49));
    EXPECT_FALSE(set.contains(50));
    EXPECT_TRUE(set.overlaps(0, 11));
    EXPECT_FALSE(set.overlaps(25, 30));
    EXPECT_TRUE(set.overlaps(26, 31));
    set.insert(0, 100);
    EXPECT_EQ(set.size(), 100u);
    set.clear();
    EXPECT_FALSE(set.contains(10));
    EXPECT_EQ(set.size(), 0u);
}

} // namespace
} // namespace Platform
