#pragma once
// Where the run journals of each target live, and what happens to them: a run writes one per
// target it changes, marks it finished when it ends normally, and keeps the last few for
// `postclone undo`; a run that finds an unfinished one first puts its sectors back.

#include "platform/storage/file_storage.h"
#include "platform/storage/run_journal.h"

#include <optional>
#include <string>

namespace Cli {

// The newest finished journals kept per target.
inline constexpr std::size_t kKeptJournals = 3;

// --journal-dir, else $POSTCLONE_JOURNAL_DIR, else /var/lib/postclone for root and
// $XDG_STATE_HOME/postclone (~/.local/state/postclone) for other users.
std::string journalRoot(const std::optional<std::string>& chosen);

// The folder of one target's journals, made when missing. Empty with problem set when it cannot be.
std::string journalFolder(const std::string& root, const Platform::FileStorage& target, std::string& problem);

// Puts back what every unfinished run on the target changed (one that was killed or lost power),
// newest first, and says so on stderr. False with problem set when that failed: nothing more may
// be written to the target.
bool recoverUnfinishedRuns(const std::string& folder, Platform::FileStorage& target, std::string& problem);

// For a dry run, which changes nothing: says on stderr when the target has an unfinished run, which
// the next real run puts back first. root: empty when journals are off.
void warnOfUnfinishedRuns(const std::string& root, const Platform::FileStorage& target);

// This run's journal for the target; its file appears at the first change.
Platform::Ref<Platform::RunJournal> startJournal(const std::string& folder, const Platform::FileStorage& target);

// The run ended: its journal is kept for undo as finished, and older finished ones beyond
// kKeptJournals go.
void finishJournal(const Platform::RunJournal& journal);

// postclone undo [--journal-dir DIR] TARGET|JOURNAL
int runUndoCommand(int argc, char** argv);

} // namespace Cli
