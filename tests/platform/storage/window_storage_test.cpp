#include "platform/storage/window_storage.h"

#include "platform/storage/byte_io.h"
#include "platform/storage/memory_storage.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

TEST(WindowStorage, SeesOnlyItsPartOfTheBase)
{
    auto base = makeRef<MemoryStorage>(512u, 10u);
    EXPECT_FALSE(WindowStorage::create(base, 8, 3));
    auto window = WindowStorage::create(base, 2, 4);
    ASSERT_TRUE(window);
    std::vector<std::uint8_t> sectors(3 * 512, 7);
    EXPECT_EQ(window->write(2, 3, sectors.data()), 2u); // clipped at the window's end
    EXPECT_EQ(base->bytes()[4 * 512], 7);
    EXPECT_EQ(base->bytes()[6 * 512], 0);
    EXPECT_EQ(window->read(4, 1, sectors.data()), 0u);
}

TEST(ByteIo, ReadModifyWriteTouchesOnlyTheCoveringSectors)
{
    auto base = makeRef<MemoryStorage>(512u, 4u);
    const std::uint8_t data[] = {1, 2, 3};
    ASSERT_TRUE(writeBytes(*base, 511, data)); // across the first sector boundary
    EXPECT_EQ(base->bytes()[511], 1);
    EXPECT_EQ(base->bytes()[513], 3);
    EXPECT_EQ(readBytes(*base, 510, 4), (std::vector<std::uint8_t>{0, 1, 2, 3}));
    EXPECT_FALSE(writeBytes(*base, 2047, data));
    EXPECT_TRUE(readBytes(*base, 2046, 4).empty());
}

} // namespace
} // namespace Platform
