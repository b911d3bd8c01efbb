#pragma once
// A dry run: each target is read through an overlay that keeps the run's changes in memory, the
// facades record the files the steps change (host folders included, which are only read), and
// each step is given what it would have written: sector ranges per target, and files with their
// diffs.

#include "platform/fs/file_changes.h"
#include "platform/storage/cached_storage.h"
#include "platform/storage/dry_run_overlay.h"
#include "postprocessing/types.h"

#include <array>
#include <map>
#include <string>
#include <vector>

namespace Cli {

struct TargetSectors {
    std::string target;
    std::vector<Platform::SectorRange> ranges;
};

struct FileEdit {
    std::string volume; // "disk.img partition 2", or the host folder or image file
    Platform::FileChange change;
    std::string diff; // unified, for a text file
};

struct StepChanges {
    std::vector<TargetSectors> sectors;
    std::vector<FileEdit> files;
};

class DryRun {
public:
    DryRun(); // the process's file change log from now on
    ~DryRun();
    DryRun(const DryRun&) = delete;
    DryRun& operator=(const DryRun&) = delete;

    // The target's changes stay in memory from now on. Called as each target is opened, before
    // the steps read it.
    void hold(const std::string& target, Platform::CachedStorage& cache);
    // What the steps changed since the last call goes to slot.
    void stepFinished(std::uint32_t slot);

    const StepChanges& of(int slot) const { return perStep_.at(std::size_t(slot)); }

private:
    struct HeldTarget {
        std::string path;
        const Interfaces::Storage* cache;
        Platform::Ref<Platform::DryRunOverlay> overlay;
        std::map<std::uint64_t, unsigned> partitionAt; // start sector -> number, as Linux numbers it
    };

    std::string volumeName(const Platform::FileChange& change) const;

    Platform::FileChangeLog files_;
    std::vector<HeldTarget> targets_;
    std::array<StepChanges, Libraries::KRO::PostProcessing::kStepCount> perStep_{};
};

// Sector ranges as "0-1, 2048, 4096-4103".
std::string rangeText(const std::vector<Platform::SectorRange>& ranges);
std::string changeWord(Platform::FileChange::Kind kind);

} // namespace Cli
