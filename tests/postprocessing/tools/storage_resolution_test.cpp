#include "platform/log/log.h"
#include "postprocessing/tools/storage_resolution.h"

#include "platform/storage/memory_storage.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing::Tools {
namespace {

TEST(StorageResolution, StorageEntriesWinOverPathsAndPathsAreOpened)
{
    TestSupport::TempDir dir;
    const std::string image = dir.file("disk.img");
    TestSupport::createImage(image, 1 << 20);
    auto keeper = Keeper::create();
    auto memory = makeRef<Platform::MemoryStorage>(512u, 8u);

    const u64 disk = keeper->addEntry(KindDisk, {}, {Variant::string("/no/such/disk")}, 0, 0);
    keeper->addObjectEntry(KindDiskStorage, nullptr, memory, disk, 0);
    EXPECT_EQ(getToStorage(keeper, disk).get(), static_cast<Interfaces::Storage*>(memory.get()));
    EXPECT_FALSE(getFromStorage(keeper, disk)); // the storage entry has no source side

    const u64 partition = keeper->addEntry(KindPartition, {Variant::string(image)}, {}, disk, 0);
    const auto opened = getFromStorage(keeper, partition);
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->elementCount(), 2048u);
    EXPECT_EQ(opened->elementSize(), 512u);
}

TEST(StorageResolution, BadEntriesGiveOneLineAndNull)
{
    Platform::ScopedLogCapture log;
    auto keeper = Keeper::create();
    const u64 disk = keeper->addEntry(KindDisk, {}, {}, 0, 0);
    const u64 partition = keeper->addEntry(KindPartition, {Variant::integer(3)}, {}, disk, 0);
    const u64 offset = keeper->addEntry(KindPartitionOffset, {}, {}, partition, 0);
    const u64 missing = keeper->addEntry(KindPartition, {Variant::string("/no/such/image")}, {}, disk, 0);

    EXPECT_FALSE(getFromStorage(keeper, partition));
    EXPECT_FALSE(getToStorage(keeper, offset));
    EXPECT_FALSE(getFromStorage(keeper, missing));
    const auto lines = log.sink().texts("PP Tools");
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "Libraries::KRO::PostProcessing::Tools::getFromStorage Invalid variant for partition (ID:" +
                            std::to_string(partition) + ")");
    EXPECT_EQ(lines[1], "Cannot get storage for entry (ID:" + std::to_string(offset) + "), unknown type 2");
    EXPECT_EQ(lines[2], "Could not open node /no/such/image");
    EXPECT_EQ(lines[3].rfind("Could not open storage for partition", 0), 0u);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Tools
