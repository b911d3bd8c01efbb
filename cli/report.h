#pragma once
// The report printed after a run: every slot's result, and the id changes the run recorded.

#include "postprocessing/keeper.h"

#include <string>
#include <vector>

namespace Cli {

struct Mapping {
    std::uint64_t kind;
    std::uint64_t entry; // the disk or partition entry the change belongs to
    std::string oldId;   // empty when the step recorded no old id
    std::string newId;
    bool applied = true; // false when the write of the new id failed: the disk has the old one
};

// The kind-5 (disk id), kind-9 (partition UUID) and kind-13 (volume id) changes, in keeper order.
std::vector<Mapping> recordedMappings(const Libraries::KRO::PostProcessing::Keeper& keeper);

// Something on a target that postclone would not touch at all, and why (as it was logged).
struct Refusal {
    std::string target;
    std::string what;
    std::string why;
};

class DryRun;
// With a dry run, what each step would have changed follows the results.
std::string textReport(const Libraries::KRO::PostProcessing::Keeper& keeper, const std::vector<Refusal>& refused = {},
                       const DryRun* dryRun = nullptr);
class StepCosts;
// With costs, each step carries what it read and wrote on the disks ("io"), and the run its total;
// with a dry run, what it would have changed ("would_change").
std::string jsonReport(const Libraries::KRO::PostProcessing::Keeper& keeper, const std::vector<Refusal>& refused = {},
                       const StepCosts* costs = nullptr, const DryRun* dryRun = nullptr);
std::string stepList();

// True when any slot ended "FAILED".
bool anyStepFailed(const Libraries::KRO::PostProcessing::Keeper& keeper);

} // namespace Cli
