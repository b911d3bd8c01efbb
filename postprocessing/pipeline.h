#pragma once
// The run behind PPHandler::process, with its step functions as a table so that tests can watch
// the order and the enabling conditions. An empty function is a step that is not built into this
// library yet: the run treats it as switched off.

#include "postprocessing/pp_handler.h"

#include <functional>

namespace Libraries::KRO::PostProcessing {

struct PipelineSteps {
    using Step = std::function<StepResult(Ref<Keeper>)>;

    Step changeDiskIds;
    Step adjustMbrCHS;
    Step removeMediaDirect;
    Step changeVolumeIds;
    Step applyLbaPatch;
    Step adjustPartitionCHS;
    Step adjustFsOffset;
    std::function<StepResult(Ref<Keeper>, bool adjustToo)> transferOrAdjustPartitionType;
    Step adjustPartitionType;
    Step migrateGpt;
    Step createBCD;
    Step adjustBcd;
    Step adjustMountedDevices;
    Step adjustSystemHives;
    Step purgeHiberfile;
    Step setCleanShutdown;
    Step clearUpdateClientId;
    Step adjustGrubSectorLists;
    Step adjustGrubCfg;
    Step adjustSyslinux;
    Step adjustRaspberryPi;
    Step adjustFstab;

    // The steps this library provides.
    static const PipelineSteps& builtIn();
};

bool runPipeline(Ref<Keeper> keeper, Ref<PPNotifier> notifier, const PipelineSteps& steps);

// The word the run logs for a result: "Not accessed" ... "FAILED", empty for other values.
const char* resultWord(StepResult result) noexcept;

} // namespace Libraries::KRO::PostProcessing
