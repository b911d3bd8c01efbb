#include "platform/storage/read_once_storage.h"

#include "platform/core/error.h"
#include "platform/storage/memory_storage.h"
#include "tests/support/counting_storage.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

Ref<MemoryStorage> numberedSectors(std::uint64_t count)
{
    auto base = makeRef<MemoryStorage>(512u, count);
    for (std::size_t i = 0; i < base->bytes().size(); ++i)
        base->bytes()[i] = std::uint8_t(i / 512);
    return base;
}

// Overlapping reads in any order give the base's bytes, and each sector comes from it once.
TEST(ReadOnceStorage, RepeatsComeFromMemoryWithTheBasesBytes)
{
    const auto base = numberedSectors(64);
    const auto counting = makeRef<TestSupport::CountingStorage>(base);
    ReadOnceStorage look(counting);
    std::vector<std::uint8_t> buffer(8 * 512);
    for (const auto& [index, count] : {std::pair<std::uint64_t, std::uint64_t>{0, 1}, {2, 2}, {0, 8}, {1, 3}, {7, 1}}) {
        ASSERT_EQ(look.read(index, count, buffer.data()), count);
        EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + std::ptrdiff_t(count * 512),
                               base->bytes().begin() + std::ptrdiff_t(index * 512)))
            << index << "+" << count;
    }
    EXPECT_EQ(counting->mostReadsOfOneSector, 1u);
    EXPECT_EQ(look.read(64, 1, buffer.data()), 0u); // past the end
}

TEST(ReadOnceStorage, StaysWithinItsBoundAndNeverWrites)
{
    const auto counting = makeRef<TestSupport::CountingStorage>(numberedSectors(64));
    ReadOnceStorage look(counting, 4);
    std::vector<std::uint8_t> buffer(8 * 512);
    ASSERT_EQ(look.read(0, 8, buffer.data()), 8u); // more than the bound: passed through
    ASSERT_EQ(look.read(0, 8, buffer.data()), 8u);
    EXPECT_EQ(counting->readsOf[0], 2u);
    ASSERT_EQ(look.read(10, 4, buffer.data()), 4u);
    ASSERT_EQ(look.read(10, 4, buffer.data()), 4u);
    EXPECT_EQ(counting->readsOf[10], 1u);
    EXPECT_EQ(buffer[3 * 512], 13);

    EXPECT_EQ(look.write(0, 1, buffer.data()), 0u);
    EXPECT_EQ(Error::get(), Error::ReadOnly);
    EXPECT_EQ(counting->sectorsWritten, 0u);
}

} // namespace
} // namespace Platform
