#pragma once
// postclone fs ls|cat|put|mkdir|rm TARGET PARTITION PATH [LOCAL_FILE]: files inside a disk
// image or device, without mounting it. PARTITION is the partition's number as Linux numbers it.

namespace Cli {

// Exit status: 0 done, 1 the partition, file system or path is not there, 2 a usage error.
int runFsCommand(int argc, char** argv);

} // namespace Cli
