// A write that fails part-way through a commit, at every possible sector: afterwards the
// partitioning tools still read a whole table, the old one or the new one, and the step failed.
// Where the disk takes writes again after the failing one, the old table is put back exactly.

#include "postprocessing/common/disk_ids.h"
#include "postprocessing/common/mbr_chs.h"
#include "postprocessing/pp_handler.h"
#include "tests/support/command.h"
#include "tests/support/counting_storage.h"
#include "tests/support/keeper_builder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>

namespace {

namespace PP = Libraries::KRO::PostProcessing;
using Platform::makeRef;
using TestSupport::runTool;

// The disk and partition ids as sfdisk reads them, in one line each.
std::string ids(const std::string& dump)
{
    std::string result;
    std::smatch found;
    const std::regex line("(label-id: \\S+|uuid=[0-9A-F-]+)");
    for (auto it = std::sregex_iterator(dump.begin(), dump.end(), line); it != std::sregex_iterator(); ++it)
        result += (*it)[1].str() + "\n";
    return result;
}

// A dump without the image's path, so that two images with one table compare equal.
std::string table(const std::string& dump)
{
    return std::regex_replace(dump, std::regex("\\S+\\.img"), "IMAGE");
}

struct Outcome {
    std::uint64_t sectorsWritten;
    std::uint64_t writeCalls;
    bool unchanged; // byte for byte
    PP::StepResult result;
    std::string dump;
};

class TornCommit : public testing::Test {
protected:
    TestSupport::TempDir dir;

    // Runs step on a copy of image whose writes stop after budget sectors, or whose write call
    // number failing fails.
    template <typename Step>
    Outcome runWithFault(const std::string& image, std::uint64_t budget, std::uint64_t failing, Step step)
    {
        auto memory = TestSupport::loadImage(image);
        auto counted = makeRef<TestSupport::CountingStorage>(memory);
        counted->writeBudget = budget;
        counted->failingWrite = failing;
        auto keeper = PP::Keeper::create();
        const PP::u64 disk = TestSupport::addDiskWithPartitions(*keeper, counted);
        Platform::ScopedLogCapture quiet;
        const PP::StepResult result = step(keeper, disk);
        const std::string copy = dir.file("torn.img");
        TestSupport::saveImage(*memory, copy);
        const bool unchanged = memory->bytes() == TestSupport::loadImage(image)->bytes();
        return {counted->sectorsWritten, counted->writeCalls, unchanged, result, runTool({"sfdisk", "--dump", copy})};
    }
};

PP::StepResult changeAllIds(PP::Ref<PP::Keeper> keeper, PP::u64)
{
    keeper->setEnabled(PP::StepDiskIds, true);
    keeper->setEnabled(PP::StepPartitionIds, true);
    return PP::Common::changeDiskIds(keeper);
}

TEST_F(TornCommit, GptIdChangeIsNeverHalfWritten)
{
    for (std::uint64_t disk : {8u, 12u}) { // the second is an 8 MiB table copied onto a 12 MiB disk
        const std::string image = dir.file("gpt.img");
        TestSupport::createImage(image, 8 << 20);
        runTool({"sgdisk", "-n1:2048:+1M", "-n2:0:+1M", "-n3:0:+1M", "-n4:0:+1M", image});
        std::filesystem::resize_file(image, disk << 20);
        const std::string before = ids(runTool({"sfdisk", "--dump", image}));

        const Outcome complete = runWithFault(image, UINT64_MAX, UINT64_MAX, changeAllIds);
        ASSERT_EQ(complete.result, PP::StepResult::Ok);
        const std::string after = ids(complete.dump);
        ASSERT_NE(after, before);
        for (std::uint64_t budget = 0; budget < complete.sectorsWritten; ++budget) {
            const Outcome torn = runWithFault(image, budget, UINT64_MAX, changeAllIds);
            EXPECT_EQ(torn.result, PP::StepResult::Failed) << "budget " << budget;
            const std::string seen = ids(torn.dump);
            // Random ids differ from run to run: "new" means every id differs from the old one.
            const bool old = seen == before;
            bool allNew = true;
            std::istringstream was(before), now(seen);
            for (std::string a, b; std::getline(was, a) && std::getline(now, b);)
                allNew = allNew && a != b;
            EXPECT_TRUE(old || allNew) << "disk of " << disk << " MiB, budget " << budget << ":\n"
                                       << before << "vs\n"
                                       << seen;
        }
        for (std::uint64_t failing = 0; failing < complete.writeCalls; ++failing) {
            const Outcome torn = runWithFault(image, UINT64_MAX, failing, changeAllIds);
            EXPECT_EQ(torn.result, PP::StepResult::Failed) << "write " << failing;
            EXPECT_TRUE(torn.unchanged) << "disk of " << disk << " MiB, write " << failing;
        }
    }
}

TEST_F(TornCommit, MbrChsChangeKeepsEveryRecordReadable)
{
    const std::string image = dir.file("mbr.img");
    TestSupport::createImage(image, 32 << 20);
    std::ofstream(dir.file("layout")) << "label: dos\nstart=2048, size=16384, type=83\nstart=18432, type=5\n"
                                         "start=20480, size=8192, type=83\nstart=30720, size=8192, type=7\n";
    ASSERT_EQ(TestSupport::run({"sh", "-c", "sfdisk -q '" + image + "' < '" + dir.file("layout") + "'"}).exitCode, 0);
    const std::string before = table(runTool({"sfdisk", "--dump", image}));
    const auto adjust = [](PP::Ref<PP::Keeper> keeper, PP::u64 disk) {
        keeper->addEntry(PP::KindDiskGeometry, {}, {PP::PPHandler::encodeCHS(1023, 16, 63)}, disk, 0);
        return PP::Common::adjustMbrCHS(keeper);
    };
    const Outcome complete = runWithFault(image, UINT64_MAX, UINT64_MAX, adjust);
    ASSERT_EQ(complete.result, PP::StepResult::Ok);
    ASSERT_EQ(complete.sectorsWritten, 3u); // two extended boot records and sector 0
    for (std::uint64_t budget = 0; budget < complete.sectorsWritten; ++budget) {
        const Outcome torn = runWithFault(image, budget, UINT64_MAX, adjust);
        EXPECT_EQ(torn.result, PP::StepResult::Failed);
        EXPECT_EQ(table(torn.dump), before) << "budget " << budget;
    }
    for (std::uint64_t failing = 0; failing < complete.writeCalls; ++failing) {
        const Outcome torn = runWithFault(image, UINT64_MAX, failing, adjust);
        EXPECT_EQ(torn.result, PP::StepResult::Failed);
        EXPECT_TRUE(torn.unchanged) << "write " << failing;
    }
}

} // namespace
