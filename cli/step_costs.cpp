#include "cli/step_costs.h"

#include "postprocessing/keeper_entries.h"

#include <atomic>
#include <csignal>

namespace Cli {

namespace {

Platform::StorageCounters sum(const std::vector<Platform::Ref<Platform::CachedStorage>>& disks)
{
    Platform::StorageCounters total;
    for (const auto& disk : disks) {
        const auto& counters = disk->counters();
        total.readCalls += counters.readCalls;
        total.sectorsRead += counters.sectorsRead;
        total.writeCalls += counters.writeCalls;
        total.sectorsWritten += counters.sectorsWritten;
        total.bytesWritten += counters.bytesWritten;
        total.retriedSectors += counters.retriedSectors;
        total.flushes += counters.flushes;
    }
    return total;
}

std::atomic<bool> stopAsked{false};

void askToStop(int)
{
    stopAsked.store(true);
}

} // namespace

void stopBetweenStepsOnSignals()
{
    struct sigaction action {};
    action.sa_handler = askToStop;
    action.sa_flags = SA_RESETHAND; // the second signal has its default effect
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

bool stopRequested()
{
    return stopAsked.load();
}

bool StepCosts::cancelled()
{
    return stopRequested();
}

std::vector<Platform::Ref<Platform::CachedStorage>> cachesOf(const Libraries::KRO::PostProcessing::Keeper& keeper)
{
    namespace PP = Libraries::KRO::PostProcessing;
    std::vector<Platform::Ref<Platform::CachedStorage>> caches;
    for (const PP::u64 entry : PP::entriesOf(keeper, PP::KindDiskStorage))
        for (const auto& object : {keeper.getToObject(entry), keeper.getFromObject(entry)})
            if (auto cache = Platform::refCast<Platform::CachedStorage>(object))
                caches.push_back(std::move(cache));
    return caches;
}

StepCosts::StepCosts(std::vector<Platform::Ref<Platform::CachedStorage>> disks,
                     Platform::Ref<Interfaces::ProgressNotifier> progress)
    : disks_(std::move(disks)), progress_(std::move(progress))
{
}

void StepCosts::progress(double fraction)
{
    if (progress_)
        progress_->progress(fraction);
}

void StepCosts::completed()
{
    if (progress_)
        progress_->completed();
}

void StepCosts::stepFinished(std::uint32_t step, Libraries::KRO::PostProcessing::StepResult)
{
    const Platform::StorageCounters now = sum(disks_);
    if (step < perStep_.size())
        perStep_[step] = now - reported_;
    reported_ = now;
    if (listener_)
        listener_(step);
}

Platform::StorageCounters StepCosts::total() const
{
    return sum(disks_);
}

} // namespace Cli
