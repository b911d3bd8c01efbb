#pragma once

#include "platform/fs/line_io.h"
#include "postprocessing/keeper.h"
#include "postprocessing/tools/uuid_replace_map.h"

namespace Libraries::KRO::PostProcessing::Linux {

// "Adjusting linux fstab": rewrites the device field of every mount-table line that names a
// changed file-system or partition id, on every target partition.
StepResult adjustFstab(Ref<Keeper> keeper);

// One mount table into a temporary file: Ok when a line changed, Nothing found, or FAILED when a
// line could not be written.
StepResult adjustFstabLines(Platform::LineReader& reader, Platform::LineWriter& writer, const UuidReplaceMap& fsIds,
                            const UuidReplaceMap& partitionIds);

// The line with the id of its device field (after prefix) replaced from map.
std::string replaceFstabLine(const std::string& line, const UuidReplaceMap& map, std::string& prefix);

} // namespace Libraries::KRO::PostProcessing::Linux
