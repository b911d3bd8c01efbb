#include "platform/storage/run_journal.h"

#include "platform/storage/memory_storage.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace Platform {
namespace {

constexpr std::size_t kSector = 512;

std::vector<std::uint8_t> filled(std::size_t sectors, std::uint8_t value)
{
    return std::vector<std::uint8_t>(sectors * kSector, value);
}

struct JournalledDisk {
    JournalledDisk(const std::string& journalPath) : disk(makeRef<MemoryStorage>(std::uint32_t(kSector), 400u))
    {
        for (std::size_t i = 0; i < disk->bytes().size(); ++i)
            disk->bytes()[i] = std::uint8_t(i / kSector * 7);
        original = disk->bytes();
        journal = makeRef<RunJournal>(journalPath, JournalTarget{"test:disk", "/dev/test", 512, 400});
        cache = makeRef<CachedStorage>(disk);
        cache->setObserver(journal);
    }
    // Two steps of a run; the second writes a sector of the first again and spans two chunks.
    void runTwoSteps()
    {
        cache->write(3, 2, filled(2, 0xA1).data());
        cache->write(200, 1, filled(1, 0xA2).data());
        ASSERT_EQ(cache->writeBack(), "");
        cache->write(4, 1, filled(1, 0xB1).data());
        cache->write(120, 20, filled(20, 0xB2).data());
        ASSERT_EQ(cache->writeBack(), "");
    }

    Ref<MemoryStorage> disk;
    std::vector<std::uint8_t> original;
    Ref<RunJournal> journal;
    Ref<CachedStorage> cache;
};

// Put back latest first: every sector ends with what it held before the run, also one that two
// steps wrote; before that, the journal recognises the run's result on the disk.
TEST(RunJournal, PutsEverySectorBackAsItWasBeforeTheRun)
{
    TestSupport::TempDir dir;
    JournalledDisk run(dir.file("run.journal"));
    run.runTwoSteps();
    EXPECT_NE(run.disk->bytes(), run.original);
    EXPECT_EQ(run.journal->recordedSectors(), 2u + 1u + 1u + 20u);

    std::string problem;
    const auto journal = JournalFile::read(dir.file("run.journal"), problem);
    ASSERT_TRUE(journal) << problem;
    EXPECT_EQ(journal->target().identity, "test:disk");
    EXPECT_EQ(journal->target().path, "/dev/test");
    EXPECT_EQ(journal->target().sectorCount, 400u);
    EXPECT_EQ(journal->records().size(), 5u); // runs are recorded per cached chunk: 120-127, 128-139
    EXPECT_FALSE(journal->tornTail());
    std::uint64_t changed = 0;
    EXPECT_TRUE(journal->targetHoldsRunResult(*run.disk, changed));

    ASSERT_TRUE(journal->putBack(*run.disk, problem)) << problem;
    EXPECT_EQ(run.disk->bytes(), run.original);
}

// A disk that changed after the run is told apart, so that an undo does not put old sectors into
// content the run never wrote.
TEST(RunJournal, NoticesADiskThatChangedSinceTheRun)
{
    TestSupport::TempDir dir;
    JournalledDisk run(dir.file("run.journal"));
    run.runTwoSteps();
    run.disk->bytes()[130 * kSector] ^= 0xFF;
    std::string problem;
    const auto journal = JournalFile::read(dir.file("run.journal"), problem);
    ASSERT_TRUE(journal) << problem;
    std::uint64_t changed = 0;
    EXPECT_FALSE(journal->targetHoldsRunResult(*run.disk, changed));
    EXPECT_EQ(changed, 128u); // the first sector of the recorded run that holds it
}

// A record cut short by a crash ends the journal: the records before it are complete, and putting
// them back gives the disk as it was before the run.
TEST(RunJournal, ARecordCutShortEndsTheJournal)
{
    TestSupport::TempDir dir;
    const std::string path = dir.file("run.journal");
    JournalledDisk run(path);
    run.cache->write(3, 2, filled(2, 0xA1).data());
    ASSERT_EQ(run.cache->writeBack(), "");
    const auto complete = std::filesystem::file_size(path);
    run.cache->write(50, 4, filled(4, 0xC1).data());
    ASSERT_EQ(run.cache->writeBack(), "");
    // As if the machine stopped while the second record was written, before its write-back.
    std::filesystem::resize_file(path, complete + 100);
    std::copy_n(run.original.begin() + 50 * kSector, 4 * kSector, run.disk->bytes().begin() + 50 * kSector);

    std::string problem;
    const auto journal = JournalFile::read(path, problem);
    ASSERT_TRUE(journal) << problem;
    EXPECT_TRUE(journal->tornTail());
    EXPECT_EQ(journal->records().size(), 1u);
    ASSERT_TRUE(journal->putBack(*run.disk, problem)) << problem;
    EXPECT_EQ(run.disk->bytes(), run.original);

    std::ofstream(dir.file("other")) << "not a journal at all, just text";
    EXPECT_FALSE(JournalFile::read(dir.file("other"), problem));
    EXPECT_NE(problem.find("not a run journal"), std::string::npos) << problem;
}

TEST(RunJournal, ARunThatChangesNothingLeavesNoJournal)
{
    TestSupport::TempDir dir;
    JournalledDisk run(dir.file("run.journal"));
    std::vector<std::uint8_t> sector(kSector);
    run.cache->read(5, 1, sector.data());
    run.cache->write(5, 1, sector.data());
    EXPECT_EQ(run.cache->writeBack(), "");
    EXPECT_FALSE(run.journal->started());
    EXPECT_FALSE(std::filesystem::exists(dir.file("run.journal")));
}

} // namespace
} // namespace Platform
