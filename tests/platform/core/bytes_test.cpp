#include "platform/core/bytes.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

TEST(ByteView, ReadsBothByteOrdersAndRemembersAnOverrun)
{
    const std::uint8_t bytes[] = {0x12, 0x34, 0x56, 0x78, 0x9A};
    ByteView view(bytes);
    EXPECT_EQ(view.u32(0), 0x78563412u);
    EXPECT_EQ(view.be32(0), 0x12345678u);
    EXPECT_EQ(view.be16(3), 0x789Au);
    EXPECT_TRUE(view.ok());
    EXPECT_EQ(view.u32(2), 0u); // one byte short
    EXPECT_FALSE(view.ok());
    EXPECT_EQ(view.u8(0), 0); // once wrong, every later read yields 0 until the caller checks
    EXPECT_FALSE(view.ok());
    ByteView tail(bytes);
    EXPECT_TRUE(tail.bytes(5, 1).empty());
    EXPECT_FALSE(tail.ok());
}

#ifndef NDEBUG
// A parser that never asks would take the zeros for data: debug builds stop it.
TEST(ByteViewDeathTest, AnOverrunNobodyCheckedStopsADebugBuild)
{
    const std::uint8_t bytes[] = {1, 2, 3};
    EXPECT_DEATH(
        {
            ByteView view(bytes);
            static_cast<void>(view.u32(0));
        },
        "never checked");
    EXPECT_DEATH(
        {
            std::uint8_t out[2] = {};
            ByteWriter(out).u32(0, 1);
        },
        "never checked");
}
#endif

TEST(ByteWriter, WritesBothByteOrdersAndRefusesOverruns)
{
    std::uint8_t bytes[6] = {};
    ByteWriter out(bytes);
    out.u16(0, 0xBEEF);
    out.be32(2, 0x01020304);
    EXPECT_TRUE(out.ok());
    EXPECT_EQ(std::vector<std::uint8_t>(bytes, bytes + 6), (std::vector<std::uint8_t>{0xEF, 0xBE, 1, 2, 3, 4}));
    out.u64(0, 1);
    EXPECT_FALSE(out.ok());
    EXPECT_EQ(bytes[0], 0xEF); // nothing written by the refused store
}

} // namespace
} // namespace Platform
