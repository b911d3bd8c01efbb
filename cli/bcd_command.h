#pragma once
// postclone bcd show [--json] TARGET [PARTITION]: every boot configuration store on the
// partitions of a target (or on the one given), read without changing a byte: each object with
// its well-known name and type, and its elements decoded; devices name their disk and partition
// ids and the partition's number on the target where it is there.

namespace Cli {

// Exit status: 0 done, 1 the target could not be read, 2 a usage error.
int runBcdCommand(int argc, char** argv);

} // namespace Cli
