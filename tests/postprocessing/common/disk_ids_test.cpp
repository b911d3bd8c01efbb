#include "platform/log/log.h"
#include "postprocessing/common/disk_ids.h"

#include "platform/partman/partition_manager.h"
#include "tests/support/command.h"
#include "tests/support/keeper_builder.h"
#include "tests/support/mbr_builder.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing::Common {
namespace {

using TestSupport::runTool;

// A keeper over memory disks, each with its partition entries and their target starts.
struct DiskIds : testing::Test {
    TestSupport::TempDir dir;
    Ref<Keeper> keeper = Keeper::create();
    Platform::ScopedLogCapture log;

    Ref<Platform::MemoryStorage> gptDisk(const std::string& diskGuid = "R")
    {
        const std::string image = dir.file("gpt" + std::to_string(counter++) + ".img");
        TestSupport::createImage(image, 8 << 20);
        runTool({"sgdisk", "-n1:2048:+1M", "-n2:0:+1M", "-U", diskGuid, image});
        return TestSupport::loadImage(image);
    }

    u64 addDisk(const Ref<Platform::MemoryStorage>& storage)
    {
        return TestSupport::addDiskWithPartitions(*keeper, storage);
    }

    void setCustomPartitionId(u64 disk, const std::vector<u8>& uuid)
    {
        const u64 partition = keeper->findNext(KindPartition, 0, disk);
        keeper->addObjectEntry(KindPartitionUuidChange, nullptr, ByteArray::create(uuid), partition, 0);
    }

    int counter = 0;
};

TEST_F(DiskIds, MigrationForcesANewIdOnAZeroGptDiskUuid)
{
    auto storage = gptDisk("00000000-0000-0000-0000-000000000000");
    const u64 disk = addDisk(storage);
    keeper->setEnabled(StepGptMigration, true);

    EXPECT_EQ(changeDiskIds(keeper), StepResult::Ok);
    EXPECT_EQ(keeper->getResult(StepDiskIds), StepResult::NotActivated);
    const auto id = Platform::PartitionManager::create(storage, 512)->diskId();
    EXPECT_NE(*id, *ByteArray::create(std::vector<u8>(16, 0)));
    const u64 mapping = keeper->findNext(KindDiskIdChange, 0, disk);
    EXPECT_EQ(*Platform::refCast<ByteArray>(keeper->getToObject(mapping)), *id);
    EXPECT_TRUE(log.sink().contains("PP Common", 1, "Disk uuid after migration is invalid, forcing disk id change"));
}

TEST_F(DiskIds, MigrationWithIdsKeptRecordsWithoutWriting)
{
    auto storage = gptDisk();
    const auto before = storage->bytes();
    const u64 disk = addDisk(storage);
    keeper->setEnabled(StepGptMigration, true);

    changeDiskIds(keeper);
    EXPECT_EQ(storage->bytes(), before);
    EXPECT_EQ(keeper->getResult(StepDiskIds), StepResult::NotActivated);
    EXPECT_EQ(keeper->getResult(StepPartitionIds), StepResult::NotActivated);
    const u64 mapping = keeper->findNext(KindDiskIdChange, 0, disk);
    ASSERT_NE(mapping, 0u);
    EXPECT_EQ(*Platform::refCast<ByteArray>(keeper->getFromObject(mapping)),
              *Platform::refCast<ByteArray>(keeper->getToObject(mapping)));
    int recorded = 0;
    for (u64 e = keeper->findNext(KindPartitionUuidChange, 0, 0); e;
         e = keeper->findNext(KindPartitionUuidChange, e, 0)) {
        EXPECT_FALSE(keeper->getFromObject(e));
        EXPECT_TRUE(keeper->getToObject(e));
        ++recorded;
    }
    EXPECT_EQ(recorded, 2);
}

TEST_F(DiskIds, ClashingCustomPartitionIdsAbortWithoutWriting)
{
    auto first = gptDisk();
    auto second = gptDisk();
    const auto secondBefore = second->bytes();
    const std::vector<u8> custom(16, 0x42);
    // Disks are handled in index order: the newer (second) disk first.
    setCustomPartitionId(addDisk(first), custom);
    setCustomPartitionId(addDisk(second), custom);
    keeper->setEnabled(StepPartitionIds, true);

    EXPECT_EQ(changeDiskIds(keeper), StepResult::Failed);
    EXPECT_EQ(second->bytes() == secondBefore, false); // the first disk handled got its ids
    EXPECT_TRUE(log.sink().contains("PP Common", 4, "custom id already exists, aborting post processing"));
    EXPECT_EQ(keeper->getResult(StepPartitionIds), StepResult::NotAccessed);
}

TEST_F(DiskIds, MbrTargetOfTheWrongSizeFails)
{
    auto storage = makeRef<Platform::MemoryStorage>(512u, 16384u);
    TestSupport::writeSignature(*storage, 0x11223344);
    TestSupport::writeMbrEntry(*storage, 0, 0, 0x83, 2048, 4096);
    const auto before = storage->bytes();
    const u64 disk = addDisk(storage);
    keeper->addObjectEntry(KindDiskIdChange, nullptr, ByteArray::create(std::vector<u8>(16, 1)), disk, 0);
    keeper->setEnabled(StepDiskIds, true);

    EXPECT_EQ(changeDiskIds(keeper), StepResult::Failed);
    EXPECT_EQ(keeper->getResult(StepDiskIds), StepResult::Failed);
    EXPECT_TRUE(log.sink().contains("PP Common", 4, "target id set for MBR with invalid size 16"));
    EXPECT_EQ(storage->bytes(), before);
}

TEST_F(DiskIds, GptFromIdThatDoesNotMatchTheDiskStopsTheStep)
{
    auto storage = gptDisk();
    const auto before = storage->bytes();
    const u64 disk = addDisk(storage);
    keeper->addObjectEntry(KindDiskIdChange, ByteArray::create(std::vector<u8>(16, 7)), nullptr, disk, 0);
    keeper->setEnabled(StepDiskIds, true);

    EXPECT_EQ(changeDiskIds(keeper), StepResult::Failed);
    EXPECT_EQ(storage->bytes(), before);
    EXPECT_TRUE(log.sink().lines().size() >= 2);
    EXPECT_EQ(log.sink().texts("PP Common")[1].rfind("Disk from id is set but ids do not match, set: 0707", 0), 0u);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Common
