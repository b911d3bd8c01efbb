#include "platform/storage/cached_storage.h"
#include "platform/storage/dry_run_overlay.h"
#include "platform/storage/memory_budget.h"
#include "platform/storage/undo_storage.h"

#include "platform/core/error.h"
#include "platform/storage/memory_storage.h"
#include "tests/support/counting_storage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace Platform {
namespace {

constexpr std::size_t kSector = 512;
constexpr std::uint64_t kChunk = CachedStorage::kChunkSectors;

std::vector<std::uint8_t> filled(std::size_t sectors, std::uint8_t value)
{
    return std::vector<std::uint8_t>(sectors * kSector, value);
}

// A disk whose every sector holds its own number in every byte (mod 251), so that a sector out
// of place shows.
struct Disk {
    explicit Disk(std::uint64_t sectors) : memory(makeRef<MemoryStorage>(std::uint32_t(kSector), sectors))
    {
        for (std::size_t i = 0; i < memory->bytes().size(); ++i)
            memory->bytes()[i] = std::uint8_t((i / kSector) % 251);
        original = memory->bytes();
        counted = makeRef<TestSupport::CountingStorage>(memory);
    }
    std::uint8_t at(std::uint64_t sector) const { return memory->bytes()[sector * kSector]; }

    Ref<MemoryStorage> memory;
    Ref<TestSupport::CountingStorage> counted;
    std::vector<std::uint8_t> original;
};

// Steps that look at the same boot sectors and superblocks again and again cost one read each;
// what a step writes is seen by every later read and reaches the disk only at the write-back,
// once per changed sector, in ascending order, with one flush.
TEST(CachedStorage, ReadsEachSectorOnceAndWritesEachChangedSectorOnceInOrder)
{
    Disk disk(4 * kChunk);
    CachedStorage cache(disk.counted);
    std::vector<std::uint8_t> buffer(40 * kSector);
    for (int pass = 0; pass < 3; ++pass) {
        ASSERT_EQ(cache.read(0, 1, buffer.data()), 1u);
        ASSERT_EQ(cache.read(kChunk - 5, 40, buffer.data()), 40u); // across a chunk boundary
        EXPECT_EQ(buffer[5 * kSector], kChunk % 251);
    }
    EXPECT_EQ(disk.counted->mostReadsOfOneSector, 1u);

    ASSERT_EQ(cache.write(300, 2, filled(2, 0xA1).data()), 2u);
    ASSERT_EQ(cache.write(5, 1, filled(1, 0xB1).data()), 1u);
    ASSERT_EQ(cache.write(5, 1, filled(1, 0xB2).data()), 1u);
    ASSERT_EQ(cache.write(5, 1, filled(1, 0xB3).data()), 1u);
    ASSERT_EQ(cache.write(kChunk - 2, 4, filled(4, 0xC1).data()), 4u);
    ASSERT_EQ(cache.write(40, 1, disk.original.data() + 40 * kSector), 1u); // what it holds: no change
    ASSERT_EQ(cache.read(4, 3, buffer.data()), 3u);
    EXPECT_EQ(buffer[kSector], 0xB3);
    EXPECT_EQ(disk.memory->bytes(), disk.original) << "nothing reaches the disk before the write-back";
    EXPECT_EQ(cache.changedSectors(), 7u);

    EXPECT_EQ(cache.writeBack(), "");
    EXPECT_EQ(disk.at(5), 0xB3);
    EXPECT_EQ(disk.at(kChunk + 1), 0xC1);
    EXPECT_EQ(disk.at(301), 0xA1);
    EXPECT_EQ(disk.at(40), 40u);
    EXPECT_EQ(disk.counted->sectorsWritten, 7u);
    EXPECT_EQ(disk.counted->mostWritesOfOneSector, 1u);
    // The run across the chunk boundary is one write.
    EXPECT_EQ(disk.counted->writeStarts, (std::vector<std::uint64_t>{5, kChunk - 2, 300}));
    EXPECT_EQ(disk.counted->flushes, 1u);
    EXPECT_EQ(disk.counted->mostReadsOfOneSector, 1u);

    // Nothing changed since: no write, no flush. A change taken back within a step: the same.
    EXPECT_EQ(cache.writeBack(), "");
    ASSERT_EQ(cache.write(7, 1, filled(1, 0xD1).data()), 1u);
    ASSERT_EQ(cache.write(7, 1, disk.original.data() + 7 * kSector), 1u);
    EXPECT_EQ(cache.writeBack(), "");
    EXPECT_EQ(disk.counted->sectorsWritten, 7u);
    EXPECT_EQ(disk.counted->flushes, 1u);
}

// A run whose write fails part-way is written again sector by sector, and the retries are
// counted; a sector that still fails breaks the storage, and every later write says why.
TEST(CachedStorage, FailedRunIsRetriedSectorBySectorAndAFatalErrorBreaksTheStorage)
{
    Disk disk(2 * kChunk);
    CachedStorage cache(disk.counted);
    ASSERT_EQ(cache.write(10, 20, filled(20, 0xE1).data()), 20u);
    disk.counted->failingWrite = 0; // the first write stops half-way
    EXPECT_EQ(cache.writeBack(), "");
    EXPECT_EQ(cache.counters().retriedSectors, 10u);
    for (std::uint64_t sector = 10; sector < 30; ++sector)
        EXPECT_EQ(disk.at(sector), 0xE1) << sector;
    EXPECT_FALSE(cache.broken());

    ASSERT_EQ(cache.write(100, 8, filled(8, 0xF1).data()), 8u);
    disk.counted->writeBudget = disk.counted->sectorsWritten + 3; // then the disk dies
    const std::string problem = cache.writeBack();
    EXPECT_NE(problem.find("sector 103 could not be written"), std::string::npos) << problem;
    EXPECT_TRUE(cache.broken());
    EXPECT_EQ(disk.counted->flushes, 1u) << "a broken write-back is not confirmed with a flush";
    EXPECT_EQ(cache.write(0, 1, filled(1, 1).data()), 0u);
    EXPECT_EQ(Error::get(), Error::DeviceBroken);
    EXPECT_EQ(Error::text(), cache.brokenReason());
    EXPECT_EQ(cache.writeBack(), cache.brokenReason());
}

// Clean chunks are dropped first; changed chunks beyond the limit go to the temporary file and
// come back for reads and for the write-back, which writes them all.
TEST(CachedStorage, MemoryStaysUnderTheLimitByDroppingCleanChunksAndSpillingChangedOnes)
{
    const std::uint64_t chunks = 24;
    Disk disk(chunks * kChunk);
    const std::size_t limit = 4 * kChunk * kSector;
    CachedStorage cache(disk.counted, limit);
    std::vector<std::uint8_t> buffer(chunks * kChunk * kSector);
    ASSERT_EQ(cache.read(0, chunks * kChunk, buffer.data()), chunks * kChunk);
    EXPECT_EQ(buffer, disk.original);
    EXPECT_LE(cache.memoryInUse(), limit);

    for (std::uint64_t c = 0; c < chunks; c += 2)
        ASSERT_EQ(cache.write(c * kChunk + 3, 2, filled(2, std::uint8_t(0x80 + c)).data()), 2u);
    EXPECT_LE(cache.memoryInUse(), limit);
    EXPECT_GT(cache.spilledChunks(), 0u);
    for (std::uint64_t c = 0; c < chunks; c += 2) {
        ASSERT_EQ(cache.read(c * kChunk + 4, 1, buffer.data()), 1u);
        EXPECT_EQ(buffer[0], 0x80 + c) << "chunk " << c;
    }
    EXPECT_LE(cache.memoryInUse(), limit);

    EXPECT_EQ(cache.writeBack(), "");
    EXPECT_LE(cache.memoryInUse(), limit);
    auto expected = disk.original;
    for (std::uint64_t c = 0; c < chunks; c += 2)
        std::memset(expected.data() + (c * kChunk + 3) * kSector, int(0x80 + c), 2 * kSector);
    EXPECT_EQ(disk.memory->bytes(), expected);
    EXPECT_EQ(disk.counted->sectorsWritten, chunks);
}

// Records every run with its old and new content before the first sector is written.
class Recorder : public Object, public WriteBackObserver {
public:
    explicit Recorder(Ref<MemoryStorage> disk, bool withhold = false) : disk_(std::move(disk)), withhold_(withhold) {}
    bool record(const Run& run, std::string& problem) override
    {
        // Still the old content on the disk: nothing is written before everything is recorded.
        // (A dry run's old content may be that of an earlier step, which the disk never saw.)
        if (!withhold_ &&
            std::memcmp(disk_->bytes().data() + run.first * kSector, run.before.data(), run.before.size()) != 0) {
            problem = "the disk changed before the record";
            return false;
        }
        runs.push_back({run.first, run.count, run.after[0], run.before[0]});
        return true;
    }
    bool commitRecords(std::string& problem) override
    {
        ++commits;
        if (failCommit)
            problem = "no space for the journal";
        return !failCommit;
    }
    bool withholdsWrites() const override { return withhold_; }

    struct Seen {
        std::uint64_t first, count;
        std::uint8_t after, before;
        bool operator==(const Seen&) const = default;
    };
    std::vector<Seen> runs;
    int commits = 0;
    bool failCommit = false;

private:
    Ref<MemoryStorage> disk_;
    bool withhold_;
};

TEST(CachedStorage, ObserverSeesEveryRunBeforeAnyIsWrittenAndCanStopTheWriteBack)
{
    Disk disk(2 * kChunk);
    CachedStorage cache(disk.counted);
    const auto recorder = makeRef<Recorder>(disk.memory);
    cache.setObserver(recorder);
    cache.write(200, 1, filled(1, 0x11).data());
    cache.write(2, 2, filled(2, 0x22).data());
    EXPECT_EQ(cache.writeBack(), "");
    EXPECT_EQ(recorder->runs, (std::vector<Recorder::Seen>{{2, 2, 0x22, 2}, {200, 1, 0x11, 200 % 251}}));
    EXPECT_EQ(recorder->commits, 1);
    EXPECT_EQ(disk.at(200), 0x11);

    cache.write(9, 1, filled(1, 0x33).data());
    recorder->failCommit = true;
    const std::string problem = cache.writeBack();
    EXPECT_NE(problem.find("no space for the journal"), std::string::npos) << problem;
    EXPECT_EQ(disk.at(9), 9u) << "what could not be recorded is not written";
    EXPECT_TRUE(cache.broken());
}

// A dry run: nothing reaches the disk, later reads and steps see the changes, and each
// write-back shows only what changed since the last one.
TEST(CachedStorage, WithheldWritesStayAsTheDisksContentForTheRestOfTheRun)
{
    Disk disk(2 * kChunk);
    CachedStorage cache(disk.counted, 2 * kChunk * kSector);
    const auto recorder = makeRef<Recorder>(disk.memory, true);
    cache.setObserver(recorder);
    cache.write(3, 1, filled(1, 0x44).data());
    EXPECT_EQ(cache.writeBack(), "");
    cache.write(3, 1, filled(1, 0x55).data());
    cache.write(kChunk + 1, 1, filled(1, 0x66).data());
    EXPECT_EQ(cache.writeBack(), "");
    EXPECT_EQ(recorder->runs, (std::vector<Recorder::Seen>{
                                  {3, 1, 0x44, 3}, {3, 1, 0x55, 0x44}, {kChunk + 1, 1, 0x66, (kChunk + 1) % 251}}));
    EXPECT_EQ(disk.memory->bytes(), disk.original);
    EXPECT_EQ(disk.counted->sectorsWritten, 0u);
    EXPECT_EQ(disk.counted->flushes, 0u);
    std::vector<std::uint8_t> buffer(kSector);
    cache.read(3, 1, buffer.data());
    EXPECT_EQ(buffer[0], 0x55);
}

// The dry run's overlay: per step, the sectors whose content changed, joined into ranges.
TEST(CachedStorage, ADryRunOverlayListsTheChangedSectorsOfEachStepAsRanges)
{
    Disk disk(2 * kChunk);
    CachedStorage cache(disk.counted);
    const auto overlay = makeRef<DryRunOverlay>();
    cache.setObserver(overlay);
    cache.write(kChunk - 1, 2, filled(2, 0x11).data()); // across two chunks
    cache.write(5, 1, filled(1, 0x22).data());
    cache.write(7, 1, filled(1, 7).data()); // the content it had: no change
    EXPECT_EQ(cache.writeBack(), "");
    cache.write(6, 1, filled(1, 0x33).data());
    EXPECT_EQ(cache.writeBack(), "");
    const auto ranges = overlay->take();
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_EQ(ranges[0].first, 5u);
    EXPECT_EQ(ranges[0].count, 2u);
    EXPECT_EQ(ranges[1].first, kChunk - 1);
    EXPECT_EQ(ranges[1].count, 2u);
    EXPECT_EQ(sectorCount(ranges), 4u);
    EXPECT_TRUE(overlay->take().empty());
    EXPECT_EQ(disk.memory->bytes(), disk.original);
}

// Old contents a change keeps only in case it fails are cold: over the run's budget they go to
// their spill file before the cache drops chunks it read, so that nothing is read twice, and
// taking the change back still works.
TEST(CachedStorage, OverTheBudgetKeptOldContentsSpillBeforeReadChunksAreDropped)
{
    Disk disk(8 * kChunk);
    const auto cache = makeRef<CachedStorage>(disk.counted);
    std::vector<std::uint8_t> all(8 * kChunk * kSector);
    ASSERT_EQ(cache->read(0, 8 * kChunk, all.data()), 8 * kChunk);
    ASSERT_EQ(cache->write(0, kChunk, filled(kChunk, 0x11).data()), kChunk); // an earlier change of the step
    const std::uint64_t readBefore = disk.counted->sectorsRead;
    // Room for the undo's copy of chunk 0, not also for the cache's old copy of chunk 1.
    MemoryBudget::setLimit(MemoryBudget::inUse() + kChunk * kSector);
    {
        UndoStorage undo(cache);
        ASSERT_EQ(undo.write(0, 2 * kChunk, filled(2 * kChunk, 0x5A).data()), 2 * kChunk);
        EXPECT_FALSE(MemoryBudget::exceeded());
        ASSERT_EQ(cache->read(0, 8 * kChunk, all.data()), 8 * kChunk);
        EXPECT_EQ(disk.counted->sectorsRead, readBefore) << "a chunk was dropped and read again";
        EXPECT_TRUE(undo.rollback());
    }
    MemoryBudget::setLimit(std::numeric_limits<std::size_t>::max());
    ASSERT_EQ(cache->read(0, 2 * kChunk, all.data()), 2 * kChunk);
    EXPECT_TRUE(std::equal(all.begin(), all.begin() + kChunk * kSector, filled(kChunk, 0x11).begin()));
    EXPECT_TRUE(std::equal(all.begin() + kChunk * kSector, all.begin() + 2 * kChunk * kSector,
                           disk.original.begin() + kChunk * kSector));
}

TEST(CachedStorage, DiscardedChangesAreGoneAndATableChangeIsPassedOnAfterTheWrite)
{
    class TableDisk : public MemoryStorage {
    public:
        TableDisk() : MemoryStorage(512, 2 * kChunk) {}
        std::string partitionTableChanged() override
        {
            sawNewTable = bytes()[0] == 0x77;
            return "re-read";
        }
        bool sawNewTable = false;
    };
    const auto disk = makeRef<TableDisk>();
    CachedStorage cache(disk);
    cache.write(1, 1, filled(1, 0x99).data());
    cache.discardChanges();
    std::vector<std::uint8_t> buffer(kSector);
    cache.read(1, 1, buffer.data());
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(cache.changedSectors(), 0u);

    cache.write(0, 1, filled(1, 0x77).data());
    EXPECT_EQ(cache.partitionTableChanged(), "");
    EXPECT_FALSE(disk->sawNewTable);
    std::string note;
    EXPECT_EQ(cache.writeBack(&note), "");
    EXPECT_TRUE(disk->sawNewTable);
    EXPECT_EQ(note, "re-read");
    EXPECT_EQ(disk->bytes()[kSector], 0);
}

} // namespace
} // namespace Platform
