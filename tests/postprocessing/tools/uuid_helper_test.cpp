#include "postprocessing/tools/uuid_helper.h"

#include "platform/log/log.h"
#include "platform/partman/partition.h"

#include <gtest/gtest.h>

#include <optional>
#include <set>

namespace Libraries::KRO::PostProcessing {
namespace {

UUID sample()
{
    const std::array<u8, 16> bytes{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                   0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    return UUID::fromBytes(bytes);
}

std::string format(const UUID& uuid, char style, UUIDHelper::PlatformFormat platform)
{
    const auto text = UUIDHelper::formatUUID(uuid, style, platform);
    return text ? text->str() : "<null>";
}

std::optional<UUID> parse(const char* text)
{
    UUID uuid;
    if (!UUIDHelper::parse(String::create(text), uuid))
        return std::nullopt;
    return uuid;
}

TEST(UUIDHelper, FormatsMixedAndBigEndian)
{
    EXPECT_EQ(format(sample(), 'D', UUIDHelper::MixedEndian), "33221100-5544-7766-8899-AABBCCDDEEFF");
    EXPECT_EQ(format(sample(), 'D', UUIDHelper::BigEndian), "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(format(sample(), 'B', UUIDHelper::BigEndian), "{00112233-4455-6677-8899-AABBCCDDEEFF}");
    // An unknown platform format prints only the last two groups.
    EXPECT_EQ(format(sample(), 'D', UUIDHelper::PlatformFormat(7)), "8899-AABBCCDDEEFF");
}

TEST(UUIDHelper, DetectLooksAtByteEight)
{
    for (u8 marker : {u8(0x04), u8(0x05)}) {
        UUID uuid = sample();
        uuid.data4[0] = marker;
        EXPECT_EQ(format(uuid, 'D', UUIDHelper::Detect), format(uuid, 'D', UUIDHelper::MixedEndian));
    }
    for (u8 other : {u8(0x06), u8(0x84), u8(0x00)}) {
        UUID uuid = sample();
        uuid.data4[0] = other;
        EXPECT_EQ(format(uuid, 'D', UUIDHelper::Detect), format(uuid, 'D', UUIDHelper::BigEndian));
    }
}

TEST(UUIDHelper, UnsupportedStyleIsAnErrorLine)
{
    Platform::ScopedLogCapture log;
    EXPECT_FALSE(UUIDHelper::formatUUID(sample(), 'N', UUIDHelper::MixedEndian));
    EXPECT_TRUE(log.sink().contains("PP Tools", 4, "UUIDHelper::formatUUID: Format not supported: N"));
}

TEST(UUIDHelper, ParsesMixedEndianTextRoundTrip)
{
    const auto braced = parse("{00112233-4455-6677-8899-aabbccddeeff}");
    ASSERT_TRUE(braced);
    EXPECT_EQ(format(*braced, 'B', UUIDHelper::MixedEndian), "{00112233-4455-6677-8899-AABBCCDDEEFF}");
    EXPECT_EQ(braced->toBytes()[0], 0x33);
    EXPECT_EQ(parse("(00112233-4455-6677-8899-aabbccddeeff)"), braced);
    EXPECT_EQ(parse("00112233-4455-6677-8899-aabbccddeeff"), braced);
    // Widths are not checked: a value is cut to its field.
    EXPECT_EQ(parse("1-12345-1-1-1")->data2, 0x2345);
}

TEST(UUIDHelper, RejectsMismatchedBracketsWrongGroupCountsAndBadDigits)
{
    EXPECT_FALSE(parse("{00112233-4455-6677-8899-aabbccddeeff)"));
    EXPECT_FALSE(parse("(00112233-4455-6677-8899-aabbccddeeff}"));
    EXPECT_FALSE(parse("{00112233-4455-6677-8899-aabbccddeeff"));
    EXPECT_FALSE(parse("00112233-4455-6677-8899"));
    EXPECT_FALSE(parse("00112233-4455-6677-8899-aabb-ccddeeff"));
    EXPECT_FALSE(parse("0011223g-4455-6677-8899-aabbccddeeff"));
    EXPECT_FALSE(parse("100112233-4455-6677-8899-aabbccddeeff"));
    EXPECT_FALSE(parse("{}"));
}

TEST(UUIDHelper, FromFieldsPlacesTheLastGroupsInTextOrder)
{
    const UUID uuid = UUIDHelper::fromFields(0x00112233, 0x4455, 0x6677, 0x8899, 0xAABBCCDDEEFFULL);
    EXPECT_EQ(format(uuid, 'D', UUIDHelper::MixedEndian), "00112233-4455-6677-8899-AABBCCDDEEFF");
}

TEST(UUIDHelper, RandomUuidsAreVersionFourRfcVariantAndDistinct)
{
    std::set<std::array<u8, 16>> seen;
    for (int i = 0; i < 256; ++i) {
        const UUID uuid = UUIDHelper::createRandom();
        const std::string text = format(uuid, 'D', UUIDHelper::MixedEndian);
        EXPECT_EQ(text[14], '4');
        EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos) << text;
        seen.insert(uuid.toBytes());
    }
    EXPECT_EQ(seen.size(), 256u);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing

namespace Libraries::KRO::PostProcessing {
namespace {

// Text rewriters print ids big-endian and parse them back mixed-endian; an MBR-derived partition
// id must survive that with its signature and entry.
TEST(UUIDHelper, MbrDerivedIdsSurviveTheTextRoundTrip)
{
    const auto derived = Platform::Partition::getUUIDFromDiskIDAndEntry(0x1A2B3C4D, 5);
    for (auto format : {UUIDHelper::BigEndian, UUIDHelper::MixedEndian, UUIDHelper::Detect}) {
        UUID parsed;
        ASSERT_TRUE(UUIDHelper::parse(UUIDHelper::formatUUID(UUID::fromBytes(derived), 'D', format), parsed));
        u32 signature = 0, entry = 0;
        ASSERT_TRUE(Platform::Partition::getDiskIDAndEntryFromUUID(parsed.toBytes(), signature, entry));
        EXPECT_EQ(signature, 0x1A2B3C4Du);
        EXPECT_EQ(entry, 5u);
    }
}

} // namespace
} // namespace Libraries::KRO::PostProcessing
