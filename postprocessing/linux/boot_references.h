#pragma once
// Linux files beyond the mount table that name, by id, devices the boot needs: the resume device
// of initramfs-tools ("/etc/initramfs-tools/conf.d/resume"), the encrypted devices of
// "/etc/crypttab", and the same configuration inside the initramfs images in /boot, which the
// copy would otherwise boot with.

#include "postprocessing/keeper.h"
#include "postprocessing/tools/uuid_replace_map.h"

#include <optional>
#include <string>
#include <string_view>

namespace Libraries::KRO::PostProcessing::Linux {

// Every target file system's files and images that name a changed id, each rewritten whole or
// not at all: Ok, Nothing found, or FAILED when one could not be rewritten.
StepResult adjustBootReferences(Ref<Keeper> keeper);

// "RESUME=UUID=..." (and ROOT=), optionally quoted, with its id rewritten.
std::string rewriteResumeLine(const std::string& line, const Tools::IdMaps& maps);
// The source field (the second) of a crypttab line, rewritten.
std::string rewriteCrypttabLine(const std::string& line, const Tools::IdMaps& maps);

// The new content of an initramfs member that names a changed id (its resume and crypttab
// configuration, a mount table), or nothing.
std::optional<std::string> rewriteInitramfsMember(const std::string& name, std::string_view content,
                                                  const Tools::IdMaps& maps);

} // namespace Libraries::KRO::PostProcessing::Linux
