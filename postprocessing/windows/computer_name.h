#pragma once
// A new computer name for a copied Windows: the control set's ComputerName and the TCP/IP host
// name Windows takes over at its next start.

#include "platform/fs/filesys.h"
#include "platform/hive/hive_file.h"
#include "postprocessing/keeper.h"

#include <optional>
#include <string>

namespace Libraries::KRO::PostProcessing::Windows {

// The name set for id (kind 14), or for the nearest of its parents that has one; nothing when
// none has a non-empty name.
std::optional<std::string> computerNameFor(const Keeper& keeper, u64 id);
// Writes the name into the open system hive's control set; fs is not needed for the edit.
StepResult adjustControlSetComputerName(const Ref<Keeper>& keeper, u64 id, Platform::Filesys& fs,
                                        const Ref<Platform::Hive::KeyNode>& controlSet);

} // namespace Libraries::KRO::PostProcessing::Windows
