#include "postprocessing/tools/format_fs_id.h"

#include "platform/log/log.h"
#include "postprocessing/pp_handler.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing::Tools {
namespace {

Ref<ByteArray> bytes(std::vector<u8> values)
{
    return ByteArray::create(values);
}

TEST(FormatFsID, SerialsAreLittleEndianHalves)
{
    EXPECT_EQ(formatFsID(bytes({0x78, 0x56, 0x34, 0x12}), UUIDHelper::Detect)->str(), "1234-5678");
    EXPECT_EQ(formatFsID(bytes({8, 7, 6, 5, 4, 3, 2, 1}), UUIDHelper::Detect)->str(), "01020304-05060708");
}

TEST(FormatFsID, UuidsFollowThePlatformFormat)
{
    const auto id =
        bytes({0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF});
    EXPECT_EQ(formatFsID(id, UUIDHelper::BigEndian)->str(), "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(formatFsID(id, UUIDHelper::MixedEndian)->str(), "33221100-5544-7766-8899-AABBCCDDEEFF");
}

TEST(FormatFsID, OtherSizesAndNullAreRefusedWithALogLine)
{
    Platform::ScopedLogCapture log;
    EXPECT_FALSE(formatFsID(bytes({1, 2, 3, 4, 5, 6}), UUIDHelper::Detect));
    EXPECT_FALSE(formatFsID(nullptr, UUIDHelper::Detect));
    const std::vector<Platform::LogLine> expected{
        {"PP Tools", 3, "Cannot handle fsid with size 6"},
        {"PP Tools", 4, "Libraries::KRO::PostProcessing::Tools::formatFsID: No buffer"}};
    EXPECT_EQ(log.sink().lines(), expected);

    // The exported wrapper answers a null id silently.
    log.sink().clear();
    EXPECT_FALSE(PPHandler::formatStorageID(nullptr, UUIDHelper::Detect));
    EXPECT_TRUE(log.sink().lines().empty());
    EXPECT_EQ(PPHandler::formatStorageID(bytes({0x78, 0x56, 0x34, 0x12}), UUIDHelper::Detect)->str(), "1234-5678");
}

TEST(EncodeCHS, ThreeNamedItemsInOrder)
{
    const Variant chs = PPHandler::encodeCHS(1023, 254, 63);
    const auto* items = chs.asList();
    ASSERT_NE(items, nullptr);
    ASSERT_EQ(items->size(), 3u);
    EXPECT_EQ((*items)[0].name, "CYL");
    EXPECT_EQ((*items)[1].name, "HEAD");
    EXPECT_EQ((*items)[2].name, "SEC");
    EXPECT_EQ((*items)[0].value.asInteger(), 1023u);
    EXPECT_EQ((*items)[1].value.asInteger(), 254u);
    EXPECT_EQ((*items)[2].value.asInteger(), 63u);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Tools
