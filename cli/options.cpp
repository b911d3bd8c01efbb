#include "cli/options.h"

#include "cli/step_names.h"
#include "platform/core/string_util.h"

#include <CLI/CLI.hpp>

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

} // namespace

ParseResult parseCommandLine(int argc, char** argv)
{
    CLI::App app{"postclone: make a cloned, restored or migrated disk bootable and unique on its new medium"};
    app.name("postclone");
    Options options;
    std::vector<std::string> enabled, disabled;
    std::string geometry;

    app.add_option("TARGET", options.targets, "Disk image file or block device to post-process");
    app.add_option("--source", options.sources, "Source disk of the n-th TARGET (repeatable)")->allow_extra_args(false);
    app.add_option("--preset", options.preset, "Switch a fixed set of steps on (1, 2 or 3; others: all granted)");
    auto* enable =
        app.add_option("--enable", enabled, "Switch a step on (repeatable; see --list-steps)")->allow_extra_args(false);
    auto* disable = app.add_option("--disable", disabled, "Switch a step off (repeatable)")->allow_extra_args(false);
    app.add_option("--computer-name", options.computerName, "New Windows computer name");
    app.add_option("--geometry", geometry, "Target disk geometry as C,H,S");
    app.add_flag("--json", options.json, "Print the report as one JSON object");
    app.add_option("--log-level", options.logLevel, "Lowest log level printed to stderr (1 detail .. 4 errors)")
        ->check(CLI::Range(1, 5));
    app.add_flag("--list-steps", options.listSteps, "List the step slots and exit");

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
    if (options.listSteps)
        return {std::move(options), 0, {}};
    if (options.targets.empty())
        return {std::nullopt, kUsageError, "no TARGET given (postclone --help shows the usage)"};
    if (options.sources.size() > options.targets.size())
        return {std::nullopt, kUsageError, "more --source paths than TARGETs"};
    return {std::move(options), 0, {}};
}

} // namespace Cli
