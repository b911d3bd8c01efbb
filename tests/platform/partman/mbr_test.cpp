#include "platform/partman/mbr.h"

#include "tests/support/counting_storage.h"
#include "tests/support/mbr_builder.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

using TestSupport::writeMbrEntry;

// 64 MiB: a primary at 2048, an extended partition at 20480 with logicals at 22528 and 43008.
Ref<MemoryStorage> diskWithLogicals()
{
    auto disk = makeRef<MemoryStorage>(512u, 131072u);
    TestSupport::writeSignature(*disk, 0x1A2B3C4D);
    writeMbrEntry(*disk, 0, 0, 0x83, 2048, 16384);
    writeMbrEntry(*disk, 0, 1, 0x05, 20480, 100000);
    writeMbrEntry(*disk, 20480, 0, 0x07, 2048, 8192);
    writeMbrEntry(*disk, 20480, 1, 0x05, 20480, 10240);
    writeMbrEntry(*disk, 40960, 0, 0x0C, 2048, 4096);
    return disk;
}

TEST(MbrPartitionTable, ReadsPrimaryAndLogicalPartitionsInLinuxOrder)
{
    ScopedLogCapture log;
    const auto table = PartitionManager::create(diskWithLogicals(), 512);
    ASSERT_TRUE(table);
    EXPECT_EQ(table->tableType(), TableType::Mbr);
    ASSERT_EQ(table->partitionCount(), 3u);
    const std::uint32_t indices[] = {0, 4, 5};
    const std::uint64_t starts[] = {2048, 22528, 43008};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(table->partition(i)->entryIndex(), indices[i]);
        EXPECT_EQ(table->partition(i)->start(), starts[i]);
        std::uint32_t signature = 0, entry = 0;
        ASSERT_TRUE(Partition::getDiskIDAndEntryFromUUID(table->partition(i)->uuid(), signature, entry));
        EXPECT_EQ(signature, 0x1A2B3C4Du);
        EXPECT_EQ(entry, indices[i]);
    }
    EXPECT_EQ(table->partition(2)->typeUuid(), Partition::mbrTypeUUID(0x0C));
    EXPECT_FALSE(table->partition(3));
}

TEST(MbrPartitionTable, RefusesDamagedTablesWithALogLine)
{
    ScopedLogCapture log;
    auto looping = diskWithLogicals();
    writeMbrEntry(*looping, 40960, 1, 0x05, 20480, 10240); // links to itself
    EXPECT_FALSE(PartitionManager::create(looping, 512));

    auto pastEnd = diskWithLogicals();
    writeMbrEntry(*pastEnd, 0, 2, 0x83, 130000, 4096);
    EXPECT_FALSE(PartitionManager::create(pastEnd, 512));

    auto brokenEbr = diskWithLogicals();
    brokenEbr->bytes()[40960 * 512 + 510] = 0;
    EXPECT_FALSE(PartitionManager::create(brokenEbr, 512));

    EXPECT_FALSE(PartitionManager::create(makeRef<MemoryStorage>(512u, 2048u), 512)); // blank
    EXPECT_FALSE(PartitionManager::create(makeRef<MemoryStorage>(512u, 0u), 512));    // empty
    EXPECT_EQ(log.sink().lines().size(), 5u);
    EXPECT_NE(log.sink().lines()[0].text.find("loops"), std::string::npos);
}

// Tables fdisk calls broken, which a commit would make worse.
TEST(MbrPartitionTable, RefusesLoopsBackToTheFirstRecordAndOverlaps)
{
    ScopedLogCapture log;
    auto backToFirst = diskWithLogicals();
    writeMbrEntry(*backToFirst, 40960, 1, 0x05, 0, 10240); // the last record links to the first
    EXPECT_FALSE(PartitionManager::create(backToFirst, 512));
    auto firstToItself = diskWithLogicals();
    writeMbrEntry(*firstToItself, 20480, 1, 0x05, 0, 10240);
    EXPECT_FALSE(PartitionManager::create(firstToItself, 512));
    auto primaryInExtended = diskWithLogicals();
    writeMbrEntry(*primaryInExtended, 0, 2, 0x83, 60000, 4096);
    EXPECT_FALSE(PartitionManager::create(primaryInExtended, 512));
    auto primariesOverlap = diskWithLogicals();
    writeMbrEntry(*primariesOverlap, 0, 2, 0x83, 10000, 4096);
    EXPECT_FALSE(PartitionManager::create(primariesOverlap, 512));

    const auto& lines = log.sink().lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_NE(lines[0].text.find("loops"), std::string::npos);
    EXPECT_NE(lines[1].text.find("loops"), std::string::npos);
    EXPECT_EQ(lines[2].text, "Partition 3 overlaps the extended partition");
    EXPECT_EQ(lines[3].text, "Partitions 1 and 3 overlap");
}

TEST(MbrPartitionTable, CommitWritesOnlyTheChangedRecords)
{
    auto disk = diskWithLogicals();
    auto counted = makeRef<TestSupport::CountingStorage>(disk);
    const auto table = PartitionManager::create(counted, 512);
    ASSERT_TRUE(table);

    const std::uint8_t signature[] = {0x01, 0x02, 0x03, 0x04};
    ASSERT_TRUE(table->setDiskId(signature));
    EXPECT_EQ(table->commit(true), 0u);
    EXPECT_EQ(counted->sectorsWritten, 1u);
    EXPECT_EQ(disk->bytes()[0x1B8], 0x01);

    // The last logical's CHS lives in its EBR: that sector and nothing else is written.
    ASSERT_TRUE(table->partition(2)->setStartCHS(0x010100));
    ASSERT_TRUE(table->partition(2)->setEndCHS(Partition::kChsNotRepresentable));
    EXPECT_EQ(table->commit(true), 0u);
    EXPECT_EQ(counted->sectorsWritten, 2u);
    const std::uint8_t* entry = disk->bytes().data() + 40960 * 512 + 0x1BE;
    EXPECT_EQ((std::vector<std::uint8_t>(entry + 1, entry + 8)),
              (std::vector<std::uint8_t>{0x01, 0x01, 0x00, 0x0C, 0xFE, 0xFF, 0xFF}));

    // Partition ids follow the new signature.
    std::uint32_t derived = 0, index = 0;
    Partition::getDiskIDAndEntryFromUUID(table->partition(0)->uuid(), derived, index);
    EXPECT_EQ(derived, 0x04030201u);
}

} // namespace
} // namespace Platform
