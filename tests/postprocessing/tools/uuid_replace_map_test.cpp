#include "postprocessing/tools/uuid_replace_map.h"

#include "platform/log/log.h"
#include "platform/partman/partition.h"

#include <gtest/gtest.h>

#include <vector>

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
    for (u32 index : {0u, 9u, 10u, 15u}) {
        const auto from = Platform::Partition::getUUIDFromDiskIDAndEntry(0x1A2B3C4D, index);
        const auto to = Platform::Partition::getUUIDFromDiskIDAndEntry(0x5E6F7A8B, index);
        addUuidMapId(
            keeper,
            keeper->addObjectEntry(KindPartitionUuidChange, ByteArray::create(from), ByteArray::create(to), 1, 0), map);
    }
    map["not-a-uuid"] = "kept";
    mapLinuxMbrPartitionIds(map);
    // From the tenth partition on, the decimal forms older files hold and the kernel's hex forms.
    const UuidReplaceMap expected{{"1a2b3c4d-01", "5e6f7a8b-01"}, {"1a2b3c4d-010", "5e6f7a8b-010"},
                                  {"1a2b3c4d-0a", "5e6f7a8b-0a"}, {"1a2b3c4d-11", "5e6f7a8b-11"},
                                  {"1a2b3c4d-0b", "5e6f7a8b-0b"}, {"1a2b3c4d-16", "5e6f7a8b-16"},
                                  {"1a2b3c4d-10", "5e6f7a8b-10"}, {"not-a-uuid", "kept"}};
    EXPECT_EQ(map, expected);
    EXPECT_EQ(linuxMbrPartitionId(0x1A2B3C4D, 11), "1a2b3c4d-0c");
    EXPECT_EQ(linuxMbrPartitionId(0x0000BEEF, 255), "0000beef-100");
}

TEST(UuidReplaceMap, NtfsSerialsAreFoundInLinuxSpellingToo)
{
    auto keeper = Keeper::create();
    UuidReplaceMap map;
    const std::vector<u8> from{0x94, 0x23, 0x8D, 0x73, 0x7D, 0x28, 0x7A, 0x6B};
    const std::vector<u8> to{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0xC8};
    const u64 entry = keeper->addObjectEntry(KindVolumeIdChange, ByteArray::create(from), ByteArray::create(to), 1, 0);
    EXPECT_EQ(addUuidMapId(keeper, entry, map), StepResult::Ok);
    const UuidReplaceMap expected{{"6b7a287d-738d2394", "c8070605-04030201"}, {"6b7a287d738d2394", "c807060504030201"}};
    EXPECT_EQ(map, expected);
    std::string prefix;
    EXPECT_EQ(replaceVolumeId("UUID=6B7A287D738D2394", map, prefix), "UUID=C807060504030201");
    EXPECT_EQ(addUuidMapId(keeper, entry, map), StepResult::Failed);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Tools
