#include "postprocessing/tools/step_write_back.h"

#include "platform/log/log.h"
#include "platform/storage/cached_storage.h"
#include "postprocessing/pp_handler.h"
#include "tests/support/counting_storage.h"
#include "tests/support/keeper_builder.h"
#include "tests/support/mbr_builder.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing {
namespace {

std::uint32_t signature(Platform::MemoryStorage& disk)
{
    const std::uint8_t* at = disk.bytes().data() + 0x1B8;
    return std::uint32_t(at[0] | at[1] << 8 | at[2] << 16 | std::uint32_t(at[3]) << 24);
}

std::string handlerLines(Platform::ScopedLogCapture& log)
{
    std::string text;
    for (const auto& line : log.sink().texts("PP Handler"))
        text += line + "\n";
    return text;
}

// An MBR disk with two partitions, behind a cache the way the command line sets it up.
struct CachedDisk {
    CachedDisk()
    {
        TestSupport::writeMbrEntry(*memory, 0, 0, 0x83, 2048, 2048);
        TestSupport::writeMbrEntry(*memory, 0, 1, 0x83, 4096, 2048);
        TestSupport::writeSignature(*memory, 0x1A2B3C4D);
        disk = TestSupport::addDiskWithPartitions(*keeper, cache);
    }
    Ref<Platform::MemoryStorage> memory = makeRef<Platform::MemoryStorage>(512u, 8192u);
    Ref<TestSupport::CountingStorage> counted = makeRef<TestSupport::CountingStorage>(memory);
    Ref<Platform::CachedStorage> cache = makeRef<Platform::CachedStorage>(counted);
    Ref<Keeper> keeper = Keeper::create();
    u64 disk = 0;
};

// A library caller's own disk storage: the run puts a cache in front of it, so that the steps
// read each sector once and each step writes sector 0 once, and the keeper holds the caller's
// storage again afterwards.
TEST(StepWriteBack, ACallersOwnDiskIsReadOnceThroughACacheForTheRun)
{
    const auto memory = makeRef<Platform::MemoryStorage>(512u, 8192u);
    TestSupport::writeMbrEntry(*memory, 0, 0, 0x83, 2048, 2048);
    TestSupport::writeMbrEntry(*memory, 0, 1, 0x83, 4096, 2048);
    TestSupport::writeSignature(*memory, 0x1A2B3C4D);
    const auto counted = makeRef<TestSupport::CountingStorage>(memory);
    const auto keeper = Keeper::create();
    const u64 disk = keeper->addEntry(KindDisk, {}, {Variant::string("disk.img")}, 0, 0);
    const u64 storage = keeper->addObjectEntry(KindDiskStorage, nullptr, counted, disk, 0);
    for (const s32 step : {StepDiskIds, StepPartitionIds, StepMbrChs, StepPartitionChs})
        keeper->setEnabled(step, true);
    PPHandler::process(keeper, Ref<Interfaces::ProgressNotifier>());
    EXPECT_EQ(keeper->getResult(StepDiskIds), StepResult::Ok);
    EXPECT_EQ(keeper->getResult(StepMbrChs), StepResult::Ok);
    EXPECT_NE(signature(*memory), 0x1A2B3C4Du);
    EXPECT_EQ(counted->mostReadsOfOneSector, 1u);
    EXPECT_LE(counted->writesOf[0], 3u) << "once per step that changed it";
    EXPECT_EQ(keeper->getToObject(storage).get(), static_cast<Platform::RefCount*>(counted.get()));
}

// A step's changes are on the disk when it reports: the new signature is in sector 0, written
// once, and a write that failed half-way was retried sector by sector.
TEST(StepWriteBack, AStepsChangesAreOnTheDiskWhenItReportsAndAFailedWriteIsRetried)
{
    CachedDisk disk;
    disk.keeper->setEnabled(StepDiskIds, true);
    disk.counted->failingWrite = 0;
    Platform::ScopedLogCapture log;
    PPHandler::process(disk.keeper, Ref<Interfaces::ProgressNotifier>());
    EXPECT_EQ(disk.keeper->getResult(StepDiskIds), StepResult::Ok);
    EXPECT_NE(signature(*disk.memory), 0x1A2B3C4Du);
    EXPECT_EQ(disk.cache->counters().retriedSectors, 1u) << "the first write stopped short; sector 0 went alone";
    EXPECT_EQ(disk.counted->mostWritesOfOneSector, 1u);
    EXPECT_EQ(disk.cache->changedSectors(), 0u);
}

// A disk that stops taking writes: the step that wrote fails with the reason, nothing of it is
// reported as done, and every later step that would write fails too.
TEST(StepWriteBack, ABrokenDiskFailsTheStepWithTheReasonAndEveryLaterWrite)
{
    CachedDisk disk;
    disk.keeper->setEnabled(StepDiskIds, true);
    disk.keeper->setEnabled(StepMbrChs, true);
    disk.counted->writeBudget = 0;
    Platform::ScopedLogCapture log;
    PPHandler::process(disk.keeper, Ref<Interfaces::ProgressNotifier>());
    EXPECT_EQ(disk.keeper->getResult(StepDiskIds), StepResult::Failed);
    EXPECT_EQ(disk.keeper->getResult(StepMbrChs), StepResult::Failed);
    EXPECT_TRUE(disk.cache->broken());
    const std::string lines = handlerLines(log);
    EXPECT_NE(lines.find("Change or get disk ids: the changes could not be written to"), std::string::npos) << lines;
    EXPECT_NE(lines.find("sector 0 could not be written"), std::string::npos) << lines;
    EXPECT_EQ(signature(*disk.memory), 0x1A2B3C4Du);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing
