#pragma once

#include "postprocessing/keeper.h"

namespace Libraries::KRO::PostProcessing::Common {

// "MBR CHS": recomputes every partition's start and end CHS from the target geometry and commits
// each disk's table. Nothing found, Ok (a disk committed) or FAILED.
StepResult adjustMbrCHS(Ref<Keeper> keeper);

} // namespace Libraries::KRO::PostProcessing::Common
