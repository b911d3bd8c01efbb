#pragma once
// A system migrated to a GPT disk boots through the EFI system partition the caller marked: the
// migration library fills it.

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Linux {

// Nothing found when no disk has a partition marked as the EFI system partition; otherwise Ok,
// whatever the migration library reports (it logs its own failures).
StepResult populateEfiBootPartition(Ref<Keeper> keeper);

} // namespace Libraries::KRO::PostProcessing::Linux
