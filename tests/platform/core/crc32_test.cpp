#include "platform/core/crc32.h"

#include <gtest/gtest.h>

#include <string_view>

namespace Platform {
namespace {

TEST(Crc32, MatchesTheStandardCheckValueAndChains)
{
    constexpr std::string_view text = "123456789";
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    EXPECT_EQ(crc32({bytes, text.size()}), 0xCBF43926u);
    EXPECT_EQ(crc32({bytes + 4, 5}, crc32({bytes, 4})), 0xCBF43926u);
    EXPECT_EQ(crc32({}), 0u);
}

} // namespace
} // namespace Platform
