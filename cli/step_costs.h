#pragma once
// What each step cost on the disks: sectors read and written through the targets' and sources'
// caches, taken when the step reports (its changes are on the disk by then).

#include "platform/storage/cached_storage.h"
#include "postprocessing/pp_handler.h"

#include <array>
#include <functional>
#include <vector>

namespace Cli {

// The caches under the keeper's disks, targets and sources.
std::vector<Platform::Ref<Platform::CachedStorage>> cachesOf(const Libraries::KRO::PostProcessing::Keeper& keeper);

// The first SIGINT or SIGTERM asks the run to stop after the step in progress (a second one ends
// the process at once, which the run journal puts right at the next run).
void stopBetweenStepsOnSignals();
bool stopRequested();

class StepCosts : public Platform::Object, public virtual Libraries::KRO::PostProcessing::PPNotifier {
public:
    StepCosts(std::vector<Platform::Ref<Platform::CachedStorage>> disks,
              Platform::Ref<Interfaces::ProgressNotifier> progress);

    void progress(double fraction) override;
    void completed() override;
    // After the first SIGINT or SIGTERM (see stopBetweenStepsOnSignals).
    bool cancelled() override;
    // The disks' work since the last report goes to this step; a group of slots reported
    // together (the system-hive switches) shows it on the first of them.
    void stepFinished(std::uint32_t step, Libraries::KRO::PostProcessing::StepResult result) override;

    // Called after each step's costs are taken (a dry run collects what the step changed).
    void afterEachStep(std::function<void(std::uint32_t step)> listener) { listener_ = std::move(listener); }

    const Platform::StorageCounters& of(int slot) const { return perStep_.at(std::size_t(slot)); }
    // Everything the run read and wrote, the reads before the first step included.
    Platform::StorageCounters total() const;

private:
    std::vector<Platform::Ref<Platform::CachedStorage>> disks_;
    Platform::Ref<Interfaces::ProgressNotifier> progress_;
    std::function<void(std::uint32_t)> listener_;
    Platform::StorageCounters reported_;
    std::array<Platform::StorageCounters, Libraries::KRO::PostProcessing::kStepCount> perStep_{};
};

} // namespace Cli
