#pragma once
// postclone windows info [--json] TARGET...: every Windows on the partitions of each target (an
// image or a device), read without changing a byte: product and version, computer name, control
// set, the Start of every storage driver postclone can activate, hibernation, shutdown and
// BitLocker state, the update-client id and the drive-letter records.

namespace Cli {

// Exit status: 0 done, 1 a target could not be read, 2 a usage error.
int runWindowsCommand(int argc, char** argv);

} // namespace Cli
