#include "cli/options.h"

#include "cli/step_names.h"
#include "platform/core/string_util.h"

#include <CLI/CLI.hpp>
#include <algorithm>

namespace Cli {

namespace {

constexpr int kUsageError = 2;

std::optional<Geometry> parseGeometry(const std::string& text)
{
    const auto parts = Platform::StringUtil::split(text, ",");
    Geometry geometry{};
    if (parts.size() != 3 || !Platform::StrConv::num(parts[0], geometry.cylinders) ||
        !Platform::StrConv::num(parts[1], geometry.heads) || !Platform::StrConv::num(parts[2], geometry.sectors))
        return std::nullopt;
    return geometry;
}

// CLI11 keeps --enable and --disable values apart; parse_order() gives back their interleaving.
std::optional<std::string> collectSwitches(const CLI::App& app, const CLI::Option* enable, const CLI::Option* disable,
                                           const std::vector<std::string>& enabled,
                                           const std::vector<std::string>& disabled, Options& options)
{
    std::size_t nextEnabled = 0, nextDisabled = 0;
    for (const CLI::Option* option : app.parse_order()) {
        if (option != enable && option != disable)
            continue;
        const bool on = option == enable;
        const std::string& name = on ? enabled[nextEnabled++] : disabled[nextDisabled++];
        const auto slot = stepSlot(name);
        if (!slot)
            return "unknown step name '" + name + "' (postclone --list-steps shows them)";
        options.switches.push_back({*slot, on});
    }
    return std::nullopt;
}

std::optional<DiskIdNames> parseDiskIdNames(const std::string& text)
{
    const auto parts = Platform::StringUtil::split(text, ",");
    if (parts.size() != 4 || std::any_of(parts.begin(), parts.end(), [](const auto& p) { return p.empty(); }))
        return std::nullopt;
    return DiskIdNames{parts[0], parts[1], parts[2], parts[3]};
}

// "PART" for the first target, or "T:PART" for the T-th.
std::optional<PartitionPath> parsePartition(std::string head)
{
    PartitionPath partition{0, 0, {}};
    if (const auto colon = head.find(':'); colon != std::string::npos) {
        std::size_t target = 0;
        if (!Platform::StrConv::num(head.substr(0, colon), target) || target == 0)
            return std::nullopt;
        partition.target = target - 1;
        head = head.substr(colon + 1);
    }
    if (!Platform::StrConv::num(head, partition.partition) || partition.partition == 0)
        return std::nullopt;
    return partition;
}

// "[T:]PART=PATH".
std::optional<PartitionPath> parsePartitionPath(const std::string& text)
{
    const auto equals = text.find('=');
    if (equals == std::string::npos || equals + 1 == text.size())
        return std::nullopt;
    auto partition = parsePartition(text.substr(0, equals));
    if (partition)
        partition->path = text.substr(equals + 1);
    return partition;
}

} // namespace

ParseResult parseCommandLine(int argc, char** argv)
{
    CLI::App app{"postclone: make a cloned, restored or migrated disk bootable and unique on its new medium"};
    app.name("postclone");
    Options options;
    std::vector<std::string> enabled, disabled;
    std::string geometry;
    std::vector<std::string> diskIdNames, mounted, efiPartitions;
    std::string bcdTemplate;

    app.add_option("TARGET", options.targets, "Disk image file or block device to post-process");
    app.add_option("--source", options.sources, "Source disk of the n-th TARGET (repeatable)")->allow_extra_args(false);
    app.add_option("--preset", options.preset, "Switch a fixed set of steps on (1, 2 or 3; others: all granted)");
    auto* enable =
        app.add_option("--enable", enabled, "Switch a step on (repeatable; see --list-steps)")->allow_extra_args(false);
    auto* disable = app.add_option("--disable", disabled, "Switch a step off (repeatable)")->allow_extra_args(false);
    app.add_option("--computer-name", options.computerName, "New Windows computer name");
    app.add_option("--geometry", geometry, "Target disk geometry as C,H,S");
    app.add_option(
           "--disk-id-names", diskIdNames,
           "OLD_MODEL,OLD_SERIAL,NEW_MODEL,NEW_SERIAL of the n-th TARGET, for /dev/disk/by-id names (repeatable)")
        ->allow_extra_args(false);
    app.add_option("--mounted", mounted, "[T:]PART=DIR: partition PART of TARGET T (default 1) is mounted at DIR")
        ->allow_extra_args(false);
    app.add_option("--efi-partition", efiPartitions,
                   "[T:]PART: partition PART of TARGET T is the EFI system partition (default: by its type)")
        ->allow_extra_args(false);
    app.add_option("--bcd-template", bcdTemplate,
                   "[T:]PART=PATH: the store a new boot configuration is made from (default: the newest Windows' "
                   "Windows/System32/config/BCD-Template)");
    app.add_flag("--json", options.json, "Print the report as one JSON object");
    app.add_flag("--dry-run", options.dryRun,
                 "Run every step against a copy-on-write view of each TARGET and of the --mounted folders: nothing "
                 "is written; the report lists the sectors and files each step would change, with diffs");
    app.add_option("--memory-limit", options.memoryLimitMiB,
                   "Most memory the run's disk caches hold, in MiB (default 256); changes beyond it wait in TMPDIR")
        ->check(CLI::Range(std::size_t(4), std::size_t(1) << 20));
    app.add_option("--journal-dir", options.journalDir,
                   "Where the run journals go (default /var/lib/postclone for root, else ~/.local/state/postclone)");
    app.add_flag("--no-journal", options.noJournal,
                 "Keep no run journal: a killed run is not taken back, and postclone undo cannot undo this run");
    app.add_option("--log-level", options.logLevel, "Lowest log level printed to stderr (1 detail .. 4 errors)")
        ->check(CLI::Range(1, 5));
    app.add_flag("--list-steps", options.listSteps, "List the step slots and exit");
    app.add_flag("--version", options.version, "Print the version and exit");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::fputs(app.help().c_str(), stdout);
        return {std::nullopt, 0, {}};
    } catch (const CLI::ParseError& error) {
        return {std::nullopt, kUsageError, error.what()};
    }

    if (auto error = collectSwitches(app, enable, disable, enabled, disabled, options))
        return {std::nullopt, kUsageError, *error};
    if (!geometry.empty() && !(options.geometry = parseGeometry(geometry)))
        return {std::nullopt, kUsageError, "--geometry wants C,H,S as three numbers, got '" + geometry + "'"};
    for (const auto& text : diskIdNames) {
        const auto names = parseDiskIdNames(text);
        if (!names)
            return {std::nullopt, kUsageError, "--disk-id-names wants four non-empty names, got '" + text + "'"};
        options.diskIdNames.push_back(*names);
    }
    for (const auto& text : mounted) {
        const auto entry = parsePartitionPath(text);
        if (!entry)
            return {std::nullopt, kUsageError, "--mounted wants [T:]PART=DIR, got '" + text + "'"};
        options.mounted.push_back(*entry);
    }
    for (const auto& text : efiPartitions) {
        const auto entry = parsePartition(text);
        if (!entry)
            return {std::nullopt, kUsageError, "--efi-partition wants [T:]PART, got '" + text + "'"};
        options.efiPartitions.push_back(*entry);
    }
    if (!bcdTemplate.empty() && !(options.bcdTemplate = parsePartitionPath(bcdTemplate)))
        return {std::nullopt, kUsageError, "--bcd-template wants [T:]PART=PATH, got '" + bcdTemplate + "'"};
    if (options.listSteps || options.version)
        return {std::move(options), 0, {}};
    if (options.targets.empty())
        return {std::nullopt, kUsageError, "no TARGET given (postclone --help shows the usage)"};
    if (options.sources.size() > options.targets.size())
        return {std::nullopt, kUsageError, "more --source paths than TARGETs"};
    if (options.diskIdNames.size() > options.targets.size())
        return {std::nullopt, kUsageError, "more --disk-id-names than TARGETs"};
    for (const auto& entry : options.mounted)
        if (entry.target >= options.targets.size())
            return {std::nullopt, kUsageError,
                    "--mounted names TARGET " + std::to_string(entry.target + 1) + ", which is not given"};
    for (const auto& entry : options.efiPartitions)
        if (entry.target >= options.targets.size())
            return {std::nullopt, kUsageError,
                    "--efi-partition names TARGET " + std::to_string(entry.target + 1) + ", which is not given"};
    if (options.bcdTemplate && options.bcdTemplate->target >= options.targets.size())
        return {std::nullopt, kUsageError,
                "--bcd-template names TARGET " + std::to_string(options.bcdTemplate->target + 1) +
                    ", which is not given"};
    return {std::move(options), 0, {}};
}

} // namespace Cli
