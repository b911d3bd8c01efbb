#pragma once

#include "postprocessing/keeper.h"
#include "postprocessing/tools/uuid_replace_map.h"

namespace Libraries::KRO::PostProcessing::Bootloader {

// "Adjusting Raspberry Pi config": the root= option of /cmdline.txt on every FAT boot partition
// that holds the Pi firmware (bootcode.bin and start.elf).
StepResult adjustRaspberryPi(Ref<Keeper> keeper);

// The command line with its root option rewritten; modified tells whether a root option was met.
std::string rewriteCommandLine(const std::string& text, const UuidReplaceMap& fsIds, const UuidReplaceMap& partitionIds,
                               bool& modified);

} // namespace Libraries::KRO::PostProcessing::Bootloader
