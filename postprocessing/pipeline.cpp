#include "postprocessing/pipeline.h"

#include "postprocessing/bootloader/grub_config.h"
#include "postprocessing/bootloader/grub_sectors.h"
#include "postprocessing/bootloader/raspberry_pi.h"
#include "postprocessing/bootloader/syslinux.h"
#include "postprocessing/common/disk_ids.h"
#include "postprocessing/common/fs_offset.h"
#include "postprocessing/common/mbr_chs.h"
#include "postprocessing/common/media_direct.h"
#include "postprocessing/common/partition_type.h"
#include "postprocessing/common/volume_ids.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/linux/boot_references.h"
#include "postprocessing/linux/efi_boot_partition.h"
#include "postprocessing/linux/fstab.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/step_labels.h"
#include "postprocessing/tools/file_tools.h"
#include "postprocessing/tools/step_write_back.h"
#include "postprocessing/windows/bcd_creation.h"
#include "postprocessing/windows/fresh_start.h"
#include "postprocessing/windows/lba_patch.h"
#include "postprocessing/windows/system_hive.h"
#include "postprocessing/windows/volume_mappings.h"

#include <string>

namespace Libraries::KRO::PostProcessing {

namespace {

constexpr u64 kProgressTotal = 24;

// One run of the pipeline: the keeper, the notifier and the progress counter.
class Run {
public:
    Run(Ref<Keeper> keeper, Ref<PPNotifier> notifier, const PipelineSteps& steps)
        : keeper_(std::move(keeper)), notifier_(std::move(notifier)), steps_(steps)
    {
    }

    void execute();

private:
    bool preflight();
    void refuseAll();
    void changeDiskIds();
    void volumeIds();
    void partitionType();
    void gptMigrationOrBcd();
    void systemHive();
    void grubSectorLists();

    // Runs a one-slot step when its switch is on and it is built; stores 1 otherwise.
    void singleStep(s32 slot, const char* outcome, const PipelineSteps::Step& step);
    // A one-slot step followed by its report and a progress advance.
    void stage(s32 slot, const char* outcome, const PipelineSteps::Step& step)
    {
        singleStep(slot, outcome, step);
        report(slot);
        advance();
    }
    StepResult invoke(const PipelineSteps::Step& step) { return step(keeper_); }
    // What the step changed goes to the disks before its result is reported; a change that
    // cannot be written fails the step, and every switched-on slot it covers.
    StepResult writtenBack(s32 slot, StepResult result)
    {
        return Tools::writeBackTargets(*keeper_, stepLabel(slot)) ? result : StepResult::Failed;
    }
    void failUnlessWritten(s32 slot, std::initializer_list<s32> covered)
    {
        if (writtenBack(slot, StepResult::Ok) == StepResult::Ok)
            return;
        for (const s32 each : covered)
            if (keeper_->isEnabled(each))
                keeper_->setResult(each, StepResult::Failed);
    }
    void announce(const char* label) { LogMessage(Channels::handler(), LogDetail) << label; }
    void outcome(const char* label, StepResult result)
    {
        LogMessage(Channels::handler(), LogNotice) << label << resultWord(result);
    }
    void subSwitch(s32 slot)
    {
        if (keeper_->isEnabled(slot))
            announce(stepLabel(slot));
    }
    void report(s32 slot);
    void advance();
    // Asked before each step: once the caller cancelled, no further step starts, and the slots
    // not reached stay "Not accessed".
    bool cancelled();

    Ref<Keeper> keeper_;
    Ref<PPNotifier> notifier_;
    const PipelineSteps& steps_;
    u64 counter_ = 0;
    bool cancelled_ = false;
};

bool Run::cancelled()
{
    if (!cancelled_ && notifier_ && notifier_->cancelled()) {
        cancelled_ = true;
        LogMessage(Channels::handler(), LogWarning) << "Cancelled: the steps not yet begun do not run";
    }
    return cancelled_;
}

// What every step would need before the first write: a run that could not finish is not
// started, since a disk with new ids and old files naming them no longer boots.
bool Run::preflight()
{
    const bool rewritesFiles =
        keeper_->isEnabled(StepGrubConfig) || keeper_->isEnabled(StepRaspberryPi) || keeper_->isEnabled(StepFstab);
    if (!rewritesFiles)
        return true;
    std::string problem;
    if (Tools::temporaryFolderUsable(problem))
        return true;
    LogMessage(Channels::handler(), LogError)
        << problem << "; the files naming the disk's ids could not be rewritten, so nothing is changed";
    return false;
}

// Every step that was asked for fails without running; the others read as switched off.
void Run::refuseAll()
{
    for (s32 slot = 0; slot < kStepCount; ++slot) {
        keeper_->setResult(slot, keeper_->isEnabled(slot) ? StepResult::Failed : StepResult::NotActivated);
        report(slot);
    }
    if (notifier_)
        notifier_->completed();
}

void Run::execute()
{
    if (!preflight()) {
        refuseAll();
        return;
    }
    changeDiskIds();
    stage(StepMbrChs, "MBR CHS adjustment: ", steps_.adjustMbrCHS);
    stage(StepMediaDirect, "Dell MediaDirect: ", steps_.removeMediaDirect);
    volumeIds();
    stage(StepLbaPatch, "Win LBA patch: ", steps_.applyLbaPatch);
    stage(StepPartitionChs, "Partition CHS adjustments: ", steps_.adjustPartitionCHS);
    stage(StepFsOffset, "fs offset adjustment: ", steps_.adjustFsOffset);
    partitionType();
    gptMigrationOrBcd();
    stage(StepMountedDevices, "mounted devices adjustment: ", steps_.adjustMountedDevices);
    systemHive();
    stage(StepHiberfile, "win hiberfile purge: ", steps_.purgeHiberfile);
    stage(StepCleanShutdown, "win clean shutdown adjustment: ", steps_.setCleanShutdown);
    stage(StepWsusId, "clear WSUS id: ", steps_.clearUpdateClientId);
    grubSectorLists();
    stage(StepGrubConfig, "Grub config adjustment: ", steps_.adjustGrubCfg);
    stage(StepSyslinux, "Syslinux sector list adjustment: ", steps_.adjustSyslinux);
    stage(StepRaspberryPi, "Raspberry Pi config adjustment: ", steps_.adjustRaspberryPi);
    singleStep(StepFstab, "linux fstab adjustment: ", steps_.adjustFstab);
    report(StepFstab);
    if (notifier_)
        notifier_->completed();
}

// Runs even with both switches off: the step then only reads the current ids.
void Run::changeDiskIds()
{
    if (cancelled())
        return;
    announce(stepLabel(StepDiskIds));
    StepResult result = StepResult::NotActivated;
    if (steps_.changeDiskIds) {
        result = invoke(steps_.changeDiskIds);
        failUnlessWritten(StepDiskIds, {StepDiskIds, StepPartitionIds});
        if (keeper_->getResult(StepDiskIds) == StepResult::Failed)
            result = StepResult::Failed;
    } else {
        keeper_->setResult(StepDiskIds, StepResult::NotActivated);
        keeper_->setResult(StepPartitionIds, StepResult::NotActivated);
    }
    if (!keeper_->isEnabled(StepDiskIds) && !keeper_->isEnabled(StepPartitionIds)) {
        if (result == StepResult::NotActivated)
            LogMessage(Channels::handler(), LogNotice) << "Disk signature change disabled by settings";
        else if (result != StepResult::Ok)
            LogMessage(Channels::handler(), LogWarning) << "Could not get current disk ids: " << resultWord(result);
    } else {
        outcome("New disks ids: ", result);
    }
    report(StepDiskIds);
    report(StepPartitionIds);
    advance();
}

// New volume ids recorded by the caller switch this step on by themselves.
void Run::volumeIds()
{
    if (cancelled())
        return;
    const bool wanted = keeper_->isEnabled(StepFsIds) || keeper_->findNext(KindVolumeIdChange, 0, 0) != 0;
    if (wanted && steps_.changeVolumeIds) {
        announce(stepLabel(StepFsIds));
        const StepResult result = writtenBack(StepFsIds, invoke(steps_.changeVolumeIds));
        keeper_->setResult(StepFsIds, result);
        outcome("fs id change: ", result);
    } else {
        keeper_->setResult(StepFsIds, StepResult::NotActivated);
    }
    report(StepFsIds);
    advance();
}

// Slot 7 (transfer, told whether slot 6 is on) takes precedence over slot 6 (adjust only); the
// slot that did not run reads "Not activated". Only slot 6 is reported.
void Run::partitionType()
{
    if (cancelled())
        return;
    const bool adjustOn = keeper_->isEnabled(StepPartitionType);
    if (keeper_->isEnabled(StepTransferPartitionType) && steps_.transferOrAdjustPartitionType) {
        announce(stepLabel(StepTransferPartitionType));
        const StepResult result =
            writtenBack(StepTransferPartitionType, steps_.transferOrAdjustPartitionType(keeper_, adjustOn));
        keeper_->setResult(StepTransferPartitionType, result);
        keeper_->setResult(StepPartitionType, StepResult::NotActivated);
        outcome("partition type adjustment: ", result);
    } else if (adjustOn && steps_.adjustPartitionType) {
        announce(stepLabel(StepPartitionType));
        const StepResult result = writtenBack(StepPartitionType, invoke(steps_.adjustPartitionType));
        keeper_->setResult(StepPartitionType, result);
        keeper_->setResult(StepTransferPartitionType, StepResult::NotActivated);
        outcome("partition type adjustment: ", result);
    } else {
        keeper_->setResult(StepPartitionType, StepResult::NotActivated);
        keeper_->setResult(StepTransferPartitionType, StepResult::NotActivated);
    }
    report(StepPartitionType);
    advance();
}

// A GPT migration replaces both BCD steps.
void Run::gptMigrationOrBcd()
{
    if (cancelled())
        return;
    if (keeper_->isEnabled(StepGptMigration) && steps_.migrateGpt) {
        const StepResult result = writtenBack(StepGptMigration, invoke(steps_.migrateGpt));
        keeper_->setResult(StepGptMigration, result);
        outcome("Migrate GPT Adjustment: ", result);
    } else {
        keeper_->setResult(StepGptMigration, StepResult::NotActivated);
        singleStep(StepCreateBcd, "BCD Creation: ", steps_.createBCD);
        singleStep(StepAdjustBcd, "BCD Adjustment: ", steps_.adjustBcd);
        report(StepAdjustBcd);
    }
    advance();
}

// Always runs; the adjustment reads the sub-switches and stores their results itself.
void Run::systemHive()
{
    if (cancelled())
        return;
    announce("Adjusting system hive");
    subSwitch(StepIde);
    subSwitch(StepAhci);
    subSwitch(StepNvme);
    subSwitch(StepUsb);
    subSwitch(StepUsb3);
    subSwitch(StepAtapi);
    subSwitch(StepRaid);
    subSwitch(StepComputerName);
    if (steps_.adjustSystemHives) {
        invoke(steps_.adjustSystemHives);
        failUnlessWritten(StepIde,
                          {StepIde, StepAhci, StepNvme, StepUsb, StepUsb3, StepAtapi, StepRaid, StepComputerName});
    }
    for (s32 slot : {StepIde, StepAhci, StepNvme, StepUsb, StepUsb3, StepAtapi, StepRaid, StepComputerName})
        report(slot);
    advance();
}

// Either switch runs the step; its result lands in slot 25.
void Run::grubSectorLists()
{
    if (cancelled())
        return;
    const bool wanted = keeper_->isEnabled(StepGrubSectors) || keeper_->isEnabled(StepGrubSectorsAlt);
    if (wanted && steps_.adjustGrubSectorLists) {
        announce(stepLabel(StepGrubSectors));
        const StepResult result = writtenBack(StepGrubSectors, invoke(steps_.adjustGrubSectorLists));
        keeper_->setResult(StepGrubSectors, result);
        outcome("Grub sector list adjustment: ", result);
    } else {
        keeper_->setResult(StepGrubSectors, StepResult::NotActivated);
    }
    report(StepGrubSectors);
    report(StepGrubSectorsAlt);
    advance();
}

void Run::singleStep(s32 slot, const char* outcomeLabel, const PipelineSteps::Step& step)
{
    if (cancelled())
        return;
    if (!keeper_->isEnabled(slot) || !step) {
        keeper_->setResult(slot, StepResult::NotActivated);
        return;
    }
    announce(stepLabel(slot));
    const StepResult result = writtenBack(slot, invoke(step));
    keeper_->setResult(slot, result);
    outcome(outcomeLabel, result);
}

void Run::report(s32 slot)
{
    const StepResult result = keeper_->getResult(slot);
    if (notifier_ && result >= StepResult::NothingFound)
        notifier_->stepFinished(u32(slot), result);
}

void Run::advance()
{
    ++counter_;
    if (notifier_)
        notifier_->progress(counter_ >= kProgressTotal ? 1.0 : double(counter_) / double(kProgressTotal));
}

} // namespace

const char* resultWord(StepResult result) noexcept
{
    switch (result) {
    case StepResult::NotAccessed:
        return "Not accessed";
    case StepResult::NotActivated:
        return "Not activated";
    case StepResult::NothingFound:
        return "Nothing found";
    case StepResult::Ok:
        return "Ok";
    case StepResult::Failed:
        return "FAILED";
    }
    return "";
}

const PipelineSteps& PipelineSteps::builtIn()
{
    // Steps land here as they are built; until then they read as switched off.
    static const PipelineSteps steps = [] {
        PipelineSteps built;
        built.changeDiskIds = Common::changeDiskIds;
        built.adjustMbrCHS = Common::adjustMbrCHS;
        built.removeMediaDirect = Common::removeMediaDirect;
        built.changeVolumeIds = Common::changeVolumeIds;
        built.applyLbaPatch = Windows::applyLbaPatch;
        built.adjustPartitionCHS = Common::adjustPartitionCHS;
        built.adjustFsOffset = Common::adjustFsOffset;
        built.transferOrAdjustPartitionType = Common::transferOrAdjustPartitionType;
        built.adjustPartitionType = Common::adjustPartitionType;
        built.migrateGpt = Linux::populateEfiBootPartition;
        built.createBCD = Windows::createBCD;
        built.adjustBcd = Windows::adjustBcd;
        built.adjustMountedDevices = Windows::adjustMountedDevices;
        built.adjustSystemHives = Windows::adjustSystemHives;
        built.purgeHiberfile = Windows::purgeHiberfile;
        built.setCleanShutdown = Windows::setCleanShutdown;
        built.clearUpdateClientId = Windows::clearUpdateClientId;
        built.adjustGrubSectorLists = Bootloader::adjustGrubSectorLists;
        built.adjustGrubCfg = Bootloader::adjustGrubCfg;
        built.adjustSyslinux = Bootloader::adjustSyslinux;
        built.adjustRaspberryPi = Bootloader::adjustRaspberryPi;
        // The mount table, then the other Linux files that name boot devices by id.
        built.adjustFstab = [](Ref<Keeper> keeper) {
            return foldResult(Linux::adjustFstab(keeper), Linux::adjustBootReferences(keeper));
        };
        return built;
    }();
    return steps;
}

bool runPipeline(Ref<Keeper> keeper, Ref<PPNotifier> notifier, const PipelineSteps& steps)
{
    if (keeperMissing(keeper, Channels::handler()))
        return true;
    const Tools::CachedDisksForRun caches(keeper);
    Run(std::move(keeper), std::move(notifier), steps).execute();
    return true;
}

bool PPHandler::process(Ref<Keeper> keeper, Ref<PPNotifier> notifier)
{
    return runPipeline(std::move(keeper), std::move(notifier), PipelineSteps::builtIn());
}

bool PPHandler::process(Ref<Keeper> keeper, Ref<Interfaces::ProgressNotifier> progress)
{
    Ref<PPNotifier> notifier;
    if (progress)
        notifier = Platform::makeRef<PPNotifierObj>(std::move(progress));
    return process(std::move(keeper), notifier);
}

void PPNotifierObj::progress(double fraction)
{
    if (progress_)
        progress_->progress(fraction);
}

void PPNotifierObj::completed()
{
    if (progress_)
        progress_->completed();
}

} // namespace Libraries::KRO::PostProcessing
