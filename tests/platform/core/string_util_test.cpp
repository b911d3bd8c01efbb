#include "platform/core/string_util.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

TEST(StringUtil, SplitKeepsEmptyPiecesAndJoinRestores)
{
    const auto pieces = StringUtil::split("a--b-", "-");
    EXPECT_EQ(pieces, (std::vector<std::string>{"a", "", "b", ""}));
    EXPECT_EQ(StringUtil::join(pieces, "-"), "a--b-");
    EXPECT_EQ(StringUtil::split("", ","), std::vector<std::string>{""});
}

TEST(StringUtil, ReplaceTouchesEveryOccurrence)
{
    EXPECT_EQ(StringUtil::replace("Model X 500 ", ' ', '_'), "Model_X_500_");
    EXPECT_EQ(StringUtil::replace("aXbXXc", "X", "--"), "a--b----c");
    EXPECT_EQ(StringUtil::ltrim(" \t  root=UUID"), "root=UUID");
    EXPECT_EQ(StringUtil::ltrim("   "), "");
}

TEST(StrConv, FormatsPaddedUpperCaseHex)
{
    EXPECT_EQ(StrConv::str(0xABCu, 16, 8), "00000ABC");
    EXPECT_EQ(StrConv::str(0x123456789u, 16, 4), "123456789");
    EXPECT_EQ(StrConv::str(std::int64_t(-1)), "-1");
}

TEST(StrConv, ParsesWholeTextsOnlyAndRefusesOverflow)
{
    std::uint32_t value32 = 0;
    EXPECT_TRUE(StrConv::num("ffffFFFF", value32, 16));
    EXPECT_EQ(value32, 0xFFFFFFFFu);
    EXPECT_FALSE(StrConv::num("100000000", value32, 16));
    EXPECT_FALSE(StrConv::num("12g", value32, 16));
    EXPECT_FALSE(StrConv::num("", value32, 16));
    EXPECT_FALSE(StrConv::num("-1", value32, 10));
    std::uint16_t value16 = 0;
    EXPECT_FALSE(StrConv::num("70000", value16, 10));
}

} // namespace
} // namespace Platform
