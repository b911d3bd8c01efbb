#pragma once
// What the file subcommands share: the file system of a numbered partition of an image or
// device, and the platform's last failure in plain words.

#include "platform/core/access.h"
#include "platform/fs/filesys.h"

#include <string>

namespace Cli {

// The file system of partition number (as Linux numbers it) of target; null with error set.
Platform::Ref<Platform::Filesys> openPartition(const std::string& target, unsigned number, Platform::Access access,
                                               std::string& error);
std::string errorText();

} // namespace Cli
