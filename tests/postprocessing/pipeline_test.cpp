#include "postprocessing/pipeline.h"

#include "platform/log/log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace Libraries::KRO::PostProcessing {
namespace {

class RecordingNotifier : public Object, public virtual PPNotifier {
public:
    void progress(double fraction) override { fractions.push_back(fraction); }
    void stepFinished(u32 step, StepResult result) override { finished.emplace_back(step, result); }

    std::vector<double> fractions;
    std::vector<std::pair<u32, StepResult>> finished;
};

class RecordingProgress : public Object, public virtual Interfaces::ProgressNotifier {
public:
    void progress(double fraction) override { fractions.push_back(fraction); }
    std::vector<double> fractions;
};

// Every step built as a recorder: it notes its name and returns the result set for it (default
// "Ok"). The disk-id and system-hive fakes store their own slots, as the real ones do.
struct FakeSteps {
    std::vector<std::string> calls;
    std::map<std::string, StepResult> results;
    bool transferToldAdjust = false;
    PipelineSteps steps;

    PipelineSteps::Step recorder(const std::string& name)
    {
        return [this, name](Ref<Keeper>) {
            calls.push_back(name);
            return results.count(name) ? results[name] : StepResult::Ok;
        };
    }

    FakeSteps()
    {
        steps.changeDiskIds = [this](Ref<Keeper> keeper) {
            calls.push_back("changeDiskIds");
            keeper->setResult(StepDiskIds, StepResult::NothingFound);
            keeper->setResult(StepPartitionIds, StepResult::NotActivated);
            return StepResult::NothingFound;
        };
        steps.adjustSystemHives = [this](Ref<Keeper> keeper) {
            calls.push_back("adjustSystemHives");
            keeper->setResult(StepIde, StepResult::Ok);
            return StepResult::Ok;
        };
        steps.transferOrAdjustPartitionType = [this](Ref<Keeper>, bool adjustToo) {
            calls.push_back("transferOrAdjustPartitionType");
            transferToldAdjust = adjustToo;
            return StepResult::Ok;
        };
        steps.adjustMbrCHS = recorder("adjustMbrCHS");
        steps.removeMediaDirect = recorder("removeMediaDirect");
        steps.changeVolumeIds = recorder("changeVolumeIds");
        steps.applyLbaPatch = recorder("applyLbaPatch");
        steps.adjustPartitionCHS = recorder("adjustPartitionCHS");
        steps.adjustFsOffset = recorder("adjustFsOffset");
        steps.adjustPartitionType = recorder("adjustPartitionType");
        steps.migrateGpt = recorder("migrateGpt");
        steps.createBCD = recorder("createBCD");
        steps.adjustBcd = recorder("adjustBcd");
        steps.adjustMountedDevices = recorder("adjustMountedDevices");
        steps.purgeHiberfile = recorder("purgeHiberfile");
        steps.setCleanShutdown = recorder("setCleanShutdown");
        steps.clearUpdateClientId = recorder("clearUpdateClientId");
        steps.adjustGrubSectorLists = recorder("adjustGrubSectorLists");
        steps.adjustGrubCfg = recorder("adjustGrubCfg");
        steps.adjustSyslinux = recorder("adjustSyslinux");
        steps.adjustRaspberryPi = recorder("adjustRaspberryPi");
        steps.adjustFstab = recorder("adjustFstab");
    }
};

Ref<Keeper> keeperWith(std::initializer_list<s32> slots)
{
    auto keeper = Keeper::create();
    for (s32 slot : slots)
        keeper->setEnabled(slot, true);
    return keeper;
}

std::vector<double> expectedProgress()
{
    std::vector<double> fractions;
    for (int i = 1; i <= 18; ++i)
        fractions.push_back(i / 24.0);
    fractions.push_back(1.0);
    return fractions;
}

TEST(Pipeline, AllSwitchesOffRunsOnlyDiskIdsAndSystemHive)
{
    FakeSteps fake;
    auto keeper = keeperWith({});
    auto notifier = makeRef<RecordingNotifier>();
    Platform::ScopedLogCapture log;

    EXPECT_TRUE(runPipeline(keeper, notifier, fake.steps));

    EXPECT_EQ(fake.calls, (std::vector<std::string>{"changeDiskIds", "adjustSystemHives"}));
    EXPECT_EQ(notifier->fractions, expectedProgress());
    const std::vector<std::pair<u32, StepResult>> reported{{StepDiskIds, StepResult::NothingFound},
                                                           {StepIde, StepResult::Ok}};
    EXPECT_EQ(notifier->finished, reported);
    for (s32 slot : {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 25, 26, 27, 28, 29, 30})
        EXPECT_EQ(keeper->getResult(slot), StepResult::NotActivated) << "slot " << slot;
    EXPECT_EQ(keeper->getResult(StepGrubSectorsAlt), StepResult::NotAccessed);
    EXPECT_TRUE(log.sink().contains("PP Handler", 3, "Could not get current disk ids: Nothing found"));
}

TEST(Pipeline, RunsEnabledStepsInTheFixedOrderWithTheirLogLines)
{
    FakeSteps fake;
    fake.results["adjustMbrCHS"] = StepResult::Failed;
    auto keeper = keeperWith({StepDiskIds,        StepMbrChs,    StepMediaDirect,   StepFsIds,     StepLbaPatch,
                              StepPartitionChs,   StepFsOffset,  StepPartitionType, StepCreateBcd, StepAdjustBcd,
                              StepMountedDevices, StepHiberfile, StepCleanShutdown, StepWsusId,    StepGrubSectors,
                              StepGrubConfig,     StepSyslinux,  StepRaspberryPi,   StepFstab,     StepNvme});
    Platform::ScopedLogCapture log;
    runPipeline(keeper, nullptr, fake.steps);

    const std::vector<std::string> order{
        "changeDiskIds",         "adjustMbrCHS",      "removeMediaDirect",   "changeVolumeIds",   "applyLbaPatch",
        "adjustPartitionCHS",    "adjustFsOffset",    "adjustPartitionType", "createBCD",         "adjustBcd",
        "adjustMountedDevices",  "adjustSystemHives", "purgeHiberfile",      "setCleanShutdown",  "clearUpdateClientId",
        "adjustGrubSectorLists", "adjustGrubCfg",     "adjustSyslinux",      "adjustRaspberryPi", "adjustFstab"};
    EXPECT_EQ(fake.calls, order);
    // A failed step is recorded and the run goes on.
    EXPECT_EQ(keeper->getResult(StepMbrChs), StepResult::Failed);
    EXPECT_EQ(keeper->getResult(StepFstab), StepResult::Ok);

    const auto lines = log.sink().texts("PP Handler");
    const std::vector<std::string> head(lines.begin(), lines.begin() + 7);
    EXPECT_EQ(head, (std::vector<std::string>{"Change or get disk ids", "New disks ids: Nothing found", "MBR CHS",
                                              "MBR CHS adjustment: FAILED", "Remove Dell MediaDirect",
                                              "Dell MediaDirect: Ok", "New fs ids"}));
    EXPECT_TRUE(log.sink().contains("PP Handler", 1, "- Activate NVMe"));
    EXPECT_FALSE(log.sink().contains("PP Handler", 1, "- Activate IDE"));
    EXPECT_TRUE(log.sink().contains("PP Handler", 2, "linux fstab adjustment: Ok"));
    EXPECT_TRUE(log.sink().contains("PP Handler", 2, "BCD Creation: Ok"));
}

TEST(Pipeline, VolumeIdEntryAloneRunsTheFsIdStep)
{
    FakeSteps fake;
    auto keeper = keeperWith({});
    keeper->addObjectEntry(KindVolumeIdChange, nullptr, nullptr, 1, 0);
    runPipeline(keeper, nullptr, fake.steps);
    EXPECT_EQ(fake.calls[1], "changeVolumeIds");
    EXPECT_EQ(keeper->getResult(StepFsIds), StepResult::Ok);
}

TEST(Pipeline, TransferTakesPrecedenceAndOnlySlotSixIsReported)
{
    FakeSteps fake;
    auto keeper = keeperWith({StepPartitionType, StepTransferPartitionType});
    auto notifier = makeRef<RecordingNotifier>();
    runPipeline(keeper, notifier, fake.steps);

    EXPECT_TRUE(fake.transferToldAdjust);
    EXPECT_EQ(std::count(fake.calls.begin(), fake.calls.end(), "adjustPartitionType"), 0);
    EXPECT_EQ(keeper->getResult(StepTransferPartitionType), StepResult::Ok);
    EXPECT_EQ(keeper->getResult(StepPartitionType), StepResult::NotActivated);
    for (const auto& [slot, result] : notifier->finished)
        EXPECT_NE(slot, u32(StepTransferPartitionType));
}

TEST(Pipeline, GptMigrationReplacesBothBcdSteps)
{
    FakeSteps fake;
    auto keeper = keeperWith({StepGptMigration, StepCreateBcd, StepAdjustBcd});
    auto notifier = makeRef<RecordingNotifier>();
    Platform::ScopedLogCapture log;
    runPipeline(keeper, notifier, fake.steps);

    EXPECT_EQ(fake.calls, (std::vector<std::string>{"changeDiskIds", "migrateGpt", "adjustSystemHives"}));
    EXPECT_EQ(keeper->getResult(StepGptMigration), StepResult::Ok);
    EXPECT_TRUE(log.sink().contains("PP Handler", 2, "Migrate GPT Adjustment: Ok"));
    for (const auto& [slot, result] : notifier->finished)
        EXPECT_TRUE(slot != u32(StepGptMigration) && slot != u32(StepAdjustBcd));
}

TEST(Pipeline, EitherGrubSwitchRunsTheSectorListStepIntoSlot25)
{
    FakeSteps fake;
    fake.results["adjustGrubSectorLists"] = StepResult::NothingFound;
    auto keeper = keeperWith({StepGrubSectorsAlt});
    auto notifier = makeRef<RecordingNotifier>();
    runPipeline(keeper, notifier, fake.steps);

    EXPECT_EQ(keeper->getResult(StepGrubSectors), StepResult::NothingFound);
    EXPECT_EQ(keeper->getResult(StepGrubSectorsAlt), StepResult::NotAccessed);
    const std::pair<u32, StepResult> grub{StepGrubSectors, StepResult::NothingFound};
    EXPECT_NE(std::find(notifier->finished.begin(), notifier->finished.end(), grub), notifier->finished.end());
}

TEST(Pipeline, StepsNotBuiltReadAsSwitchedOff)
{
    auto keeper = keeperWith({StepDiskIds, StepMbrChs, StepFstab, StepGptMigration});
    Platform::ScopedLogCapture log;
    runPipeline(keeper, nullptr, PipelineSteps{});

    EXPECT_EQ(keeper->getResult(StepDiskIds), StepResult::NotActivated);
    EXPECT_EQ(keeper->getResult(StepMbrChs), StepResult::NotActivated);
    EXPECT_EQ(keeper->getResult(StepFstab), StepResult::NotActivated);
    EXPECT_EQ(keeper->getResult(StepIde), StepResult::NotAccessed);
    EXPECT_FALSE(log.sink().contains("PP Handler", 1, "MBR CHS"));
    EXPECT_TRUE(log.sink().contains("PP Handler", 2, "New disks ids: Not activated"));
}

TEST(PPHandler, ProgressOverloadForwardsOnlyProgress)
{
    auto progress = makeRef<RecordingProgress>();
    auto keeper = keeperWith({});
    Platform::ScopedLogCapture log;
    EXPECT_TRUE(PPHandler::process(keeper, Ref<Interfaces::ProgressNotifier>(progress)));
    EXPECT_EQ(progress->fractions, expectedProgress());
    // With no disks the disk-id step finds nothing even with its switches off.
    EXPECT_TRUE(log.sink().contains("PP Handler", 3, "Could not get current disk ids: Nothing found"));

    EXPECT_TRUE(PPHandler::process(keeper, Ref<Interfaces::ProgressNotifier>()));
    EXPECT_TRUE(PPHandler::process(Ref<Keeper>(), Ref<PPNotifier>()));
}

TEST(PPHandler, ResultWords)
{
    EXPECT_STREQ(resultWord(StepResult::NotAccessed), "Not accessed");
    EXPECT_STREQ(resultWord(StepResult::Failed), "FAILED");
    EXPECT_STREQ(resultWord(StepResult(9)), "");
}

} // namespace
} // namespace Libraries::KRO::PostProcessing

namespace Libraries::KRO::PostProcessing {
namespace {

// Cancelled while the volume ids were changed: that step ends and reports, no later step begins,
// and the slots not reached read "Not accessed".
TEST(Pipeline, ACancelledRunStopsBetweenSteps)
{
    class CancelAfterVolumeIds : public RecordingNotifier {
    public:
        bool cancelled() override
        {
            return std::any_of(finished.begin(), finished.end(),
                               [](const auto& step) { return step.first == u32(StepFsIds); });
        }
    };
    FakeSteps fake;
    auto keeper = keeperWith({StepDiskIds, StepMbrChs, StepFsIds, StepPartitionChs, StepGrubConfig, StepFstab});
    auto notifier = makeRef<CancelAfterVolumeIds>();
    Platform::ScopedLogCapture log;
    runPipeline(keeper, notifier, fake.steps);

    EXPECT_EQ(fake.calls, (std::vector<std::string>{"changeDiskIds", "adjustMbrCHS", "changeVolumeIds"}));
    EXPECT_EQ(keeper->getResult(StepFsIds), StepResult::Ok);
    for (s32 slot : {StepPartitionChs, StepIde, StepGrubConfig, StepFstab})
        EXPECT_EQ(keeper->getResult(slot), StepResult::NotAccessed) << "slot " << slot;
    EXPECT_TRUE(log.sink().contains("PP Handler", 3, "Cancelled: the steps not yet begun do not run"));
}

} // namespace
} // namespace Libraries::KRO::PostProcessing
