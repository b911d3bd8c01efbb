#include "platform/core/variant.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

TEST(Variant, AnswersOnlyForItsOwnType)
{
    const Variant path = Variant::string("/dev/sdb", "PATH");
    EXPECT_EQ(path.type(), Variant::Type::String);
    EXPECT_EQ(static_cast<int>(path.type()), 2);
    EXPECT_EQ(*path.asString(), "/dev/sdb");
    EXPECT_EQ(path.typeName(), "PATH");
    EXPECT_FALSE(path.asInteger());
    EXPECT_EQ(path.asBytes(), nullptr);

    const Variant number = Variant::integer(2048);
    EXPECT_EQ(static_cast<int>(number.type()), 1);
    EXPECT_EQ(number.asInteger(), 2048u);
    EXPECT_EQ(number.asString(), nullptr);
    EXPECT_EQ(Variant().type(), Variant::Type::Empty);
}

TEST(Variant, ListItemsAreFoundByName)
{
    const Variant chs = Variant::list({{"CYL", Variant::integer(1023)}, {"HEAD", Variant::integer(254)}});
    ASSERT_NE(chs.item("HEAD"), nullptr);
    EXPECT_EQ(chs.item("HEAD")->asInteger(), 254u);
    EXPECT_EQ(chs.item("SEC"), nullptr);
    EXPECT_EQ(Variant::integer(1).item("CYL"), nullptr);
}

TEST(Variant, EqualityIncludesTheTypeName)
{
    EXPECT_EQ(Variant::bytes({1, 2}), Variant::bytes({1, 2}));
    EXPECT_NE(Variant::string("a", "LINUXID"), Variant::string("a"));
    EXPECT_NE(Variant::integer(2), Variant::string("2"));
}

} // namespace
} // namespace Platform
