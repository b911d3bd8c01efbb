#pragma once

#include "postprocessing/keeper.h"
#include "postprocessing/tools/uuid_replace_map.h"

namespace Libraries::KRO::PostProcessing::Bootloader {

// By-id device names: old name to new name.
using LinuxIdMap = std::map<std::string, std::string>;

// "Adjusting grub config": rewrites the ids in GRUB 2, EFI and GRUB legacy configuration files
// on every target file system.
StepResult adjustGrubCfg(Ref<Keeper> keeper);

// The root= and resume= options of a linux or kernel line, rewritten through the maps; the
// line unchanged when nothing was replaced.
std::string rewriteKernelLine(const std::string& line, const UuidReplaceMap& fsIds, const UuidReplaceMap& partitionIds,
                              const LinuxIdMap& linuxIds);

// The uuid argument of a search.fs_uuid line or of a search --fs-uuid/-u line, rewritten.
std::string rewriteSearchLine(const std::string& line, bool fsUuidCommand, const UuidReplaceMap& fsIds);

} // namespace Libraries::KRO::PostProcessing::Bootloader
