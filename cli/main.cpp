// postclone: post-processes cloned, restored or migrated disks so that they boot and are unique.

#include "cli/bcd_command.h"
#include "cli/dry_run.h"
#include "cli/fs_command.h"
#include "cli/options.h"
#include "cli/plan.h"
#include "cli/reg_command.h"
#include "cli/report.h"
#include "cli/run_journals.h"
#include "cli/step_costs.h"
#include "cli/terminal.h"
#include "cli/windows_command.h"
#include "postprocessing/pp_handler.h"

#include <cstdio>
#include <memory>
#include <string_view>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitStepFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitStopped = 130; // as a shell reports a program ended by SIGINT

int usageError(const std::string& message)
{
    std::fprintf(stderr, "postclone: %s\n", message.c_str());
    return kExitUsage;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && std::string_view(argv[1]) == "fs")
        return Cli::runFsCommand(argc, argv);
    if (argc > 1 && std::string_view(argv[1]) == "reg")
        return Cli::runRegCommand(argc, argv);
    if (argc > 1 && std::string_view(argv[1]) == "bcd")
        return Cli::runBcdCommand(argc, argv);
    if (argc > 1 && std::string_view(argv[1]) == "windows")
        return Cli::runWindowsCommand(argc, argv);
    if (argc > 1 && std::string_view(argv[1]) == "undo")
        return Cli::runUndoCommand(argc, argv);
    const auto parsed = Cli::parseCommandLine(argc, argv);
    if (!parsed.options)
        return parsed.error.empty() ? parsed.exitCode : usageError(parsed.error);
    const Cli::Options& options = *parsed.options;
    if (options.version) {
        std::printf("postclone %s\n", Libraries::KRO::PostProcessing::PPHandler::version());
        return kExitOk;
    }
    if (options.listSteps) {
        std::fputs(Cli::stepList().c_str(), stdout);
        return kExitOk;
    }
    if (const auto error = Cli::checkMedia(options); !error.empty())
        return usageError(error);

    Platform::SysLogStream::install(std::make_shared<Cli::StderrLog>());
    Platform::SysLogFilter::setLevel(options.logLevel);

    // Each target's journal: an unfinished run is put back first, then this run is recorded. A dry
    // run writes nothing, so it keeps no journal and leaves an unfinished one to the next real run.
    std::vector<Platform::Ref<Platform::RunJournal>> journals;
    std::string journalProblem;
    const auto dryRun = options.dryRun ? std::make_unique<Cli::DryRun>() : nullptr;
    const auto prepare = [&](Platform::FileStorage& target, Platform::CachedStorage& cache) {
        if (dryRun) {
            Cli::warnOfUnfinishedRuns(options.noJournal ? std::string() : Cli::journalRoot(options.journalDir),
                                      target);
            dryRun->hold(target.path(), cache);
            return true;
        }
        if (options.noJournal)
            return true;
        const std::string folder = Cli::journalFolder(Cli::journalRoot(options.journalDir), target, journalProblem);
        if (folder.empty() || !Cli::recoverUnfinishedRuns(folder, target, journalProblem))
            return false;
        journals.push_back(Cli::startJournal(folder, target));
        cache.setObserver(journals.back());
        return true;
    };
    std::vector<Cli::Refusal> refused;
    const auto keeper = Cli::buildKeeper(options, &refused, prepare);
    if (!keeper && !journalProblem.empty()) {
        std::fprintf(stderr, "postclone: %s; nothing was changed by this run\n", journalProblem.c_str());
        return kExitStepFailed;
    }
    if (!keeper)
        return usageError("could not open the targets for post-processing");
    Cli::stopBetweenStepsOnSignals();
    const auto costs = Platform::makeRef<Cli::StepCosts>(Cli::cachesOf(*keeper), Cli::progressForTerminal());
    if (dryRun)
        costs->afterEachStep([&](std::uint32_t step) { dryRun->stepFinished(step); });
    Libraries::KRO::PostProcessing::PPHandler::process(
        keeper, Platform::Ref<Libraries::KRO::PostProcessing::PPNotifier>(costs));

    for (const auto& journal : journals)
        Cli::finishJournal(*journal);

    const std::string report = options.json ? Cli::jsonReport(*keeper, refused, costs.get(), dryRun.get())
                                             : Cli::textReport(*keeper, refused, dryRun.get());
    std::fputs(report.c_str(), stdout);
    if (Cli::stopRequested()) {
        std::fprintf(stderr, dryRun ? "postclone: stopped on request; the report shows the steps that ran\n"
                                    : "postclone: stopped on request; the steps that ran are complete on the disk, "
                                      "the others did not begin (postclone undo takes this run back)\n");
        return kExitStopped;
    }
    // A disk postclone refused to touch is no success, even where every step found nothing.
    return Cli::anyStepFailed(*keeper) || !refused.empty() ? kExitStepFailed : kExitOk;
}
