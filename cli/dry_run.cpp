#include "cli/dry_run.h"

#include "cli/unified_diff.h"
#include "platform/partman/partition_manager.h"
#include "platform/storage/window_storage.h"

namespace Cli {

DryRun::DryRun()
{
    Platform::FileChangeLog::install(&files_);
}

DryRun::~DryRun()
{
    Platform::FileChangeLog::install(nullptr);
}

void DryRun::hold(const std::string& target, Platform::CachedStorage& cache)
{
    HeldTarget held{target, &cache, Platform::makeRef<Platform::DryRunOverlay>(), {}};
    cache.setObserver(held.overlay);
    // The numbers the report names file systems by; read through the cache, so not read again.
    if (const auto table = Platform::PartitionManager::create(Platform::Ref<Interfaces::Storage>(&cache), 512))
        for (std::size_t i = 0; i < table->partitionCount(); ++i)
            held.partitionAt[table->partition(i)->start()] = table->partition(i)->entryIndex() + 1;
    targets_.push_back(std::move(held));
}

std::string DryRun::volumeName(const Platform::FileChange& change) const
{
    if (!change.volumePath.empty())
        return change.volumePath;
    const auto* window = dynamic_cast<const Platform::WindowStorage*>(change.storage.get());
    for (const auto& target : targets_) {
        if (!window || window->base().get() != target.cache)
            continue;
        const auto number = target.partitionAt.find(window->first());
        return number != target.partitionAt.end()
                   ? target.path + " partition " + std::to_string(number->second)
                   : target.path + " at sector " + std::to_string(window->first());
    }
    return "a file system of the run";
}

void DryRun::stepFinished(std::uint32_t slot)
{
    if (slot >= perStep_.size())
        return;
    StepChanges& step = perStep_[slot];
    for (const auto& target : targets_)
        if (auto ranges = target.overlay->take(); !ranges.empty())
            step.sectors.push_back({target.path, std::move(ranges)});
    for (auto& change : files_.take()) {
        FileEdit edit{volumeName(change), std::move(change), {}};
        if (edit.change.isText())
            edit.diff = unifiedDiff(edit.change.before.value_or(""), edit.change.after.value_or(""), edit.change.path);
        step.files.push_back(std::move(edit));
    }
}

std::string rangeText(const std::vector<Platform::SectorRange>& ranges)
{
    std::string text;
    for (const auto& range : ranges) {
        if (!text.empty())
            text += ", ";
        text += std::to_string(range.first);
        if (range.count > 1) {
            text += '-';
            text += std::to_string(range.first + range.count - 1);
        }
    }
    return text;
}

std::string changeWord(Platform::FileChange::Kind kind)
{
    switch (kind) {
    case Platform::FileChange::Kind::Changed:
        return "changed";
    case Platform::FileChange::Kind::Created:
        return "created";
    case Platform::FileChange::Kind::Removed:
        return "removed";
    case Platform::FileChange::Kind::DirectoryCreated:
        return "directory created";
    }
    return "changed";
}

} // namespace Cli
