#pragma once
// postclone reg export|get|set|recover: a registry hive inside a partition of an image or device
// (TARGET PARTITION PATH, as postclone fs addresses files) or a hive file on the host (HIVE).
//   export  HIVE|TARGET PARTITION PATH [KEY]       the key and below as .reg text
//   get     HIVE|TARGET PARTITION PATH KEY NAME    one value
//   set     HIVE|TARGET PARTITION PATH KEY NAME TYPE [DATA...]
//   recover HIVE|TARGET PARTITION PATH             replays the transaction logs and writes them in

namespace Cli {

// Exit status: 0 done, 1 the hive, key or value is not there or cannot be changed, 2 a usage error.
int runRegCommand(int argc, char** argv);

} // namespace Cli
