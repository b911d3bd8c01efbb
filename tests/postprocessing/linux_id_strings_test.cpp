#include "postprocessing/pp_handler.h"

#include "platform/log/log.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing {
namespace {

Variant names(std::initializer_list<Variant> elements)
{
    std::vector<NamedVariant> items;
    for (const auto& element : elements)
        items.push_back({"", element});
    return Variant::list(std::move(items));
}

Variant text(const char* value)
{
    return Variant::string(value);
}

struct IdStrings : testing::Test {
    Ref<Keeper> keeper = Keeper::create();
    u64 disk = keeper->addEntry(KindDisk, {}, {}, 0, 0);
    u64 partition = keeper->addEntry(KindPartition, {}, {}, disk, 0);
    Platform::ScopedLogCapture log;

    std::pair<std::string, std::string> recorded(u64 id)
    {
        const u64 index = keeper->findNext(KindLinuxIdString, 0, id);
        if (index == 0)
            return {};
        const auto from = keeper->getFrom(index);
        const auto to = keeper->getTo(index);
        EXPECT_EQ(from[0].typeName(), "LINUXID");
        return {*from[0].asString(), *to[0].asString()};
    }
};

TEST_F(IdStrings, DiskNamesGetUnderscoresAndSerial)
{
    EXPECT_TRUE(PPHandler::addLinuxDiskIdString(keeper, disk, names({text("HD Model 500")}), names({text("W123")}),
                                                names({text("SSD Model 860")}), names({text("S4X")})));
    EXPECT_EQ(recorded(disk), (std::pair<std::string, std::string>{"HD_Model_500_W123", "SSD_Model_860_S4X"}));
    EXPECT_TRUE(
        log.sink().contains("PP Handler", 1, "Setting linux mapping from HD_Model_500_W123 to SSD_Model_860_S4X"));
}

TEST_F(IdStrings, PartitionSuffixNumericSerialAndUnusedAlternatives)
{
    EXPECT_TRUE(PPHandler::addLinuxPartIdString(keeper, partition, names({text("Old Disk"), text("Alt Name")}),
                                                names({Variant::integer(12345)}), 0, names({text("New Disk")}),
                                                names({text("S 9")}), 1));
    EXPECT_EQ(recorded(partition), (std::pair<std::string, std::string>{"Old_Disk_12345-part1", "New_Disk_S 9-part2"}));
    EXPECT_TRUE(log.sink().contains("PP Handler", 1, "Not adding additional from disk name Alt Name"));

    // A disk call with alternatives logs nothing about them.
    log.sink().clear();
    PPHandler::addLinuxDiskIdString(keeper, disk, names({text("A"), text("B")}), names({text("1")}), names({text("C")}),
                                    names({text("2")}));
    EXPECT_EQ(log.sink().texts("PP Handler"), std::vector<std::string>{"Setting linux mapping from A_1 to C_2"});
}

TEST_F(IdStrings, MissingSerialRecordsNothingButSucceeds)
{
    EXPECT_TRUE(PPHandler::addLinuxPartIdString(keeper, partition, names({text("A")}), names({text("1")}), 0,
                                                names({text("B")}), names({}), 0));
    EXPECT_EQ(keeper->findNext(KindLinuxIdString, 0, 0), 0u);
    EXPECT_TRUE(
        log.sink().contains("PP Handler", 1, "Libraries::KRO::PostProcessing::addLinuxIdString: no to disk serial"));

    log.sink().clear();
    EXPECT_TRUE(PPHandler::addLinuxDiskIdString(keeper, disk, names({text("A")}), names({text("1")}),
                                                names({text("B")}), names({text("")})));
    EXPECT_EQ(keeper->findNext(KindLinuxIdString, 0, 0), 0u);
    EXPECT_TRUE(log.sink().lines().empty());
}

TEST_F(IdStrings, RefusesWrongKindsAndInvalidIndexes)
{
    const Variant n = names({text("A")});
    EXPECT_FALSE(PPHandler::addLinuxDiskIdString(keeper, partition, n, n, n, n));
    EXPECT_TRUE(log.sink().contains(
        "PP Handler", 4, "Libraries::KRO::PostProcessing::PPHandler::addLinuxDiskIdString: Incorrect ID type"));
    EXPECT_FALSE(PPHandler::addLinuxPartIdString(keeper, disk, n, n, 0, n, n, 0));
    EXPECT_FALSE(PPHandler::addLinuxPartIdString(keeper, partition, n, n, kNoPartition, n, n, 0));
    EXPECT_TRUE(log.sink().contains("PP Handler", 4, "Invalid from partidx -1"));
    EXPECT_FALSE(PPHandler::addLinuxPartIdString(keeper, partition, n, n, 0, n, n, kNoPartition));
    EXPECT_TRUE(log.sink().contains("PP Handler", 4, "Invalid to partidx: -1"));
    EXPECT_FALSE(PPHandler::addLinuxDiskIdString(nullptr, disk, n, n, n, n));
    EXPECT_TRUE(log.sink().contains("PP Handler", 4,
                                    "Libraries::KRO::PostProcessing::PPHandler::addLinuxDiskIdString: No keeper"));
    EXPECT_EQ(keeper->findNext(KindLinuxIdString, 0, 0), 0u);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing
