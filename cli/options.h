#pragma once
// What the user asked for on the command line.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Cli {

struct Geometry {
    std::uint32_t cylinders;
    std::uint32_t heads;
    std::uint32_t sectors;
};

struct StepSwitch {
    int slot;
    bool on;
};

// Linux by-id names of one target disk: the model and serial it was copied from and those it has.
struct DiskIdNames {
    std::string oldModel, oldSerial, newModel, newSerial;
};

// A partition of a target, with a path: where it is mounted (its files are edited in that
// folder), or a file on it.
struct PartitionPath {
    std::size_t target; // 0-based
    unsigned partition; // as Linux numbers it
    std::string path;
};

struct Options {
    std::vector<std::string> targets;
    std::vector<std::string> sources; // the n-th pairs with the n-th target
    std::optional<std::int32_t> preset;
    std::vector<StepSwitch> switches; // --enable/--disable in command-line order, after the preset
    std::optional<std::string> computerName;
    std::optional<Geometry> geometry;
    std::vector<DiskIdNames> diskIdNames; // the n-th for the n-th target
    std::vector<PartitionPath> mounted;
    std::vector<PartitionPath> efiPartitions; // path empty
    std::optional<PartitionPath> bcdTemplate; // path: the template store on that partition
    bool json = false;
    bool dryRun = false; // targets opened read-only, every change kept in memory and reported
    std::size_t memoryLimitMiB = 256; // the disk caches of the run, together
    std::optional<std::string> journalDir;
    bool noJournal = false;
    int logLevel = 2;
    bool listSteps = false;
    bool version = false;
};

// The outcome of parsing: options to run with, or an exit (help printed, or a usage error with
// its one-line message).
struct ParseResult {
    std::optional<Options> options;
    int exitCode = 0;
    std::string error;
};

ParseResult parseCommandLine(int argc, char** argv);

} // namespace Cli
