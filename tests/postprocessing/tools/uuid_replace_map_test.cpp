#include "postprocessing/tools/uuid_replace_map.h"

#include "platform/log/log.h"
#include "platform/partman/partition.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing::Tools {
namespace {

Ref<ByteArray> bytes(std::vector<u8> values)
{
    return ByteArray::create(values);
}

std::string replaced(const std::string& entry, const UuidReplaceMap& map)
{
    std::string prefix;
    return replaceVolumeId(entry, map, prefix);
}

TEST(UuidReplaceMap, KeepsTheLetterCaseOfTheText)
{
    Platform::ScopedLogCapture log;
    const UuidReplaceMap map{{"abcd-1234", "5e6f-7a8b"}, {"1234-5678", "9abc-def0"}};
    EXPECT_EQ(replaced("UUID=ABCD-1234", map), "UUID=5E6F-7A8B");
    EXPECT_EQ(replaced("UUID=abcd-1234", map), "UUID=5e6f-7a8b");
    EXPECT_EQ(replaced("UUID=1234-5678", map), "UUID=9abc-def0");
    EXPECT_EQ(replaced("UUID=AbCd-1234", map), "UUID=5e6f-7a8b");
    EXPECT_TRUE(log.sink().contains("PP Tools", 1, "Mixed case uuid"));
    EXPECT_EQ(replaced("UUID=ffff-0000", map), "UUID=ffff-0000");
}

TEST(UuidReplaceMap, FindsThePrefixAtTheLastEqualsSign)
{
    Platform::ScopedLogCapture log;
    const UuidReplaceMap map{{"abcd", "ef01"}};
    std::string prefix;
    EXPECT_EQ(replaceVolumeId("root=UUID=abcd", map, prefix), "root=UUID=ef01");
    EXPECT_EQ(prefix, "root=UUID=");
    prefix.clear();
    EXPECT_EQ(replaceVolumeId("abcd", map, prefix), "ef01");
    EXPECT_EQ(prefix, "");
    prefix.clear();
    EXPECT_EQ(replaceVolumeId("UUID=", map, prefix), "UUID=");
    EXPECT_TRUE(log.sink().contains("PP Tools", 1, "Prefix UUID= too long for entry UUID="));
    std::string untouched = "keep";
    EXPECT_EQ(replaceVolumeId("UUID=abcd", UuidReplaceMap{}, untouched), "UUID=abcd");
    EXPECT_EQ(untouched, "keep");
}

TEST(UuidReplaceMap, GptIdsArriveInBothSpellingsAndDuplicatesFail)
{
    Platform::ScopedLogCapture log;
    auto keeper = Keeper::create();
    const std::vector<u8> oldId{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    const std::vector<u8> newId(16, 0x42);
    const u64 entry = keeper->addObjectEntry(KindPartitionUuidChange, bytes(oldId), bytes(newId), 1, 0);
    UuidReplaceMap map;
    EXPECT_EQ(addUuidMapId(keeper, entry, map), StepResult::Ok);
    EXPECT_EQ(map.size(), 2u);
    EXPECT_EQ(map["00112233-4455-6677-8899-aabbccddeeff"], "42424242-4242-4242-4242-424242424242");
    EXPECT_EQ(map.count("33221100-5544-7766-8899-aabbccddeeff"), 1u);
    EXPECT_EQ(addUuidMapId(keeper, entry, map), StepResult::Failed);

    // Two spellings that coincide give one pair and say so.
    const u64 same = keeper->addObjectEntry(KindPartitionUuidChange, bytes(newId), bytes(oldId), 1, 0);
    UuidReplaceMap single;
    EXPECT_EQ(addUuidMapId(keeper, same, single), StepResult::Ok);
    EXPECT_EQ(single.size(), 1u);
    EXPECT_EQ(addUuidMapId(keeper, keeper->addObjectEntry(KindVolumeIdChange, nullptr, bytes(newId), 1, 0), single),
              StepResult::NothingFound);
}

TEST(UuidReplaceMap, MbrPartitionIdsTakeTheLinuxForm)
{
    auto keeper = Keeper::create();
    UuidReplaceMap map;
    for (u32 index : {0u, 9u, 10u}) {
        const auto from = Platform::Partition::getUUIDFromDiskIDAndEntry(0x1A2B3C4D, index);
        const auto to = Platform::Partition::getUUIDFromDiskIDAndEntry(0x5E6F7A8B, index);
        addUuidMapId(
            keeper,
            keeper->addObjectEntry(KindPartitionUuidChange, ByteArray::create(from), ByteArray::create(to), 1, 0), map);
    }
    map["not-a-uuid"] = "kept";
    mapLinuxMbrPartitionIds(map);
    const UuidReplaceMap expected{{"1a2b3c4d-01", "5e6f7a8b-01"},
                                  {"1a2b3c4d-010", "5e6f7a8b-010"},
                                  {"1a2b3c4d-11", "5e6f7a8b-11"},
                                  {"not-a-uuid", "kept"}};
    EXPECT_EQ(map, expected);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Tools
