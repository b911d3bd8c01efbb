#include "cli/run_journals.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace Cli {

namespace {

namespace fs = std::filesystem;
using Platform::FileStorage;
using Platform::JournalFile;
using Platform::Ref;

constexpr const char* kActive = ".active";
constexpr const char* kFinished = ".done";
constexpr const char* kRecovered = ".recovered";
constexpr const char* kUndone = ".undone";

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr const char* kUsage = "usage: postclone undo [--journal-dir DIR] TARGET|JOURNAL";

// A folder name from an identity: letters, digits and ".-_" kept, everything else "_".
std::string folderName(const std::string& identity)
{
    std::string name = identity;
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-' && c != '_')
            c = '_';
    return name;
}

// Sortable by time: 20261123T151230.123456789-4242
std::string runStamp()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    ::gmtime_r(&now.tv_sec, &utc);
    char text[64];
    std::snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d%02d.%09ld-%d", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, now.tv_nsec, int(::getpid()));
    return text;
}

bool endsWith(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// The folder's journals with one of the endings, oldest first.
std::vector<fs::path> journals(const std::string& folder, std::initializer_list<const char*> endings)
{
    std::vector<fs::path> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error))
        for (const char* ending : endings)
            if (endsWith(entry.path().filename().string(), ending))
                found.push_back(entry.path());
    std::sort(found.begin(), found.end());
    return found;
}

// Renames a journal to its new state; the rename reaches the disk before the caller goes on.
void markJournal(const fs::path& journal, const char* ending)
{
    fs::path renamed = journal;
    renamed.replace_extension(ending);
    std::error_code error;
    fs::rename(journal, renamed, error);
    const int dir = ::open(journal.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
}

std::string stampOf(const fs::path& journal)
{
    return journal.stem().string();
}

fs::path folderOf(const std::string& root, const std::string& identity)
{
    return fs::path(root) / "targets" / folderName(identity);
}

bool sameShape(const JournalFile& journal, const FileStorage& target, std::string& problem)
{
    if (journal.target().sectorSize == target.elementSize() && journal.target().sectorCount == target.elementCount())
        return true;
    problem = target.path() + " is no longer the size the journal recorded (" +
              std::to_string(journal.target().sectorCount) + " sectors of " +
              std::to_string(journal.target().sectorSize) + " bytes)";
    return false;
}

} // namespace

std::string journalRoot(const std::optional<std::string>& chosen)
{
    if (chosen)
        return *chosen;
    if (const char* dir = std::getenv("POSTCLONE_JOURNAL_DIR"); dir && *dir)
        return dir;
    if (::geteuid() == 0)
        return "/var/lib/postclone";
    if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state)
        return std::string(state) + "/postclone";
    const char* home = std::getenv("HOME");
    return std::string(home && *home ? home : ".") + "/.local/state/postclone";
}

std::string journalFolder(const std::string& root, const FileStorage& target, std::string& problem)
{
    const std::string identity = target.identity();
    const fs::path folder = folderOf(root, identity);
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        problem = "cannot make the journal folder " + folder.string() + ": " + error.message() +
                  " (choose another with --journal-dir, or run with --no-journal)";
        return {};
    }
    std::ofstream(folder / "target") << identity << "\n" << target.path() << "\n";
    return folder.string();
}

bool recoverUnfinishedRuns(const std::string& folder, FileStorage& target, std::string& problem)
{
    const auto unfinished = journals(folder, {kActive});
    for (auto journal = unfinished.rbegin(); journal != unfinished.rend(); ++journal) {
        std::string unreadable;
        const auto contents = JournalFile::read(journal->string(), unreadable);
        // The header is synced before the first record, and the disk changes only after the
        // records: a journal without a readable header had changed nothing.
        if (contents && contents->target().identity != target.identity()) {
            problem = journal->string() + " belongs to " + contents->target().identity + ", not to " + target.path();
            return false;
        }
        if (contents && !sameShape(*contents, target, problem))
            return false;
        if (contents && !contents->records().empty() && !contents->putBack(target, problem)) {
            problem = "the run of " + stampOf(*journal) + " on " + target.path() +
                      " did not finish, and its changes could not be put back: " + problem;
            return false;
        }
        std::fprintf(stderr,
                     "postclone: the run of %s on %s did not finish; the %llu sectors it had changed are put back "
                     "as they were before it (journal %s)\n",
                     stampOf(*journal).c_str(), target.path().c_str(),
                     static_cast<unsigned long long>(contents ? contents->sectors() : 0), journal->c_str());
        markJournal(*journal, kRecovered);
    }
    if (!unfinished.empty())
        target.partitionTableChanged();
    return true;
}

void warnOfUnfinishedRuns(const std::string& root, const FileStorage& target)
{
    if (root.empty())
        return;
    if (const auto unfinished = journals(folderOf(root, target.identity()).string(), {kActive}); !unfinished.empty())
        std::fprintf(stderr,
                     "postclone: the run of %s on %s did not finish; this dry run shows the disk as that run left it, "
                     "and the next run puts its sectors back first\n",
                     stampOf(unfinished.back()).c_str(), target.path().c_str());
}

Ref<Platform::RunJournal> startJournal(const std::string& folder, const FileStorage& target)
{
    const std::string path = folder + "/" + runStamp() + kActive;
    return Platform::makeRef<Platform::RunJournal>(
        path, Platform::JournalTarget{target.identity(), target.path(), target.elementSize(), target.elementCount()});
}

void finishJournal(const Platform::RunJournal& journal)
{
    if (!journal.started())
        return;
    markJournal(journal.path(), kFinished);
    const std::string folder = fs::path(journal.path()).parent_path().string();
    const auto kept = journals(folder, {kFinished, kRecovered, kUndone});
    std::error_code error;
    for (std::size_t i = 0; i + kKeptJournals < kept.size(); ++i)
        fs::remove(kept[i], error);
}

int runUndoCommand(int argc, char** argv)
{
    std::vector<std::string> args(argv + 2, argv + argc);
    std::optional<std::string> journalDir;
    if (args.size() == 3 && args[0] == "--journal-dir") {
        journalDir = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.size() != 1 || args[0].starts_with("-")) {
        std::fprintf(stderr, "postclone: %s\n", kUsage);
        return kExitUsage;
    }
    const auto fail = [](const std::string& message) {
        std::fprintf(stderr, "postclone: %s\n", message.c_str());
        return kExitFailed;
    };

    // A journal names its target; a target's newest journal is in its folder.
    std::string problem;
    fs::path journalPath;
    std::optional<JournalFile> journal = JournalFile::read(args[0], problem);
    std::string targetPath = journal ? journal->target().path : args[0];
    const auto target = FileStorage::open(targetPath, FileStorage::Access::ReadWrite);
    if (!target)
        return fail("cannot open '" + targetPath + "': " +
                    (FileStorage::openProblem().empty() ? std::string("not a disk image file or block device")
                                                        : FileStorage::openProblem()));
    if (journal) {
        journalPath = args[0];
    } else {
        const std::string folder = journalFolder(journalRoot(journalDir), *target, problem);
        if (folder.empty())
            return fail(problem);
        const auto candidates = journals(folder, {kFinished, kActive});
        if (candidates.empty())
            return fail("no run on " + targetPath + " to undo (no journal in " + folder + ")");
        journalPath = candidates.back();
        journal = JournalFile::read(journalPath.string(), problem);
        if (!journal)
            return fail(problem);
    }
    if (journal->target().identity != target->identity())
        return fail(journalPath.string() + " belongs to " + journal->target().identity + "; " + targetPath + " is " +
                    target->identity() + ": nothing was put back");
    if (!sameShape(*journal, *target, problem))
        return fail(problem + ": nothing was put back");
    // A finished run's result must still be there; an unfinished one may have stopped anywhere.
    std::uint64_t changed = 0;
    if (endsWith(journalPath.string(), kFinished) && !journal->targetHoldsRunResult(*target, changed))
        return fail(targetPath + " changed after the run of " + stampOf(journalPath) + " (sector " +
                    std::to_string(changed) + " no longer holds what it wrote): nothing was put back");
    if (!journal->putBack(*target, problem))
        return fail("undo of the run of " + stampOf(journalPath) + " on " + targetPath + " failed: " + problem);
    markJournal(journalPath, kUndone);
    if (const std::string note = target->partitionTableChanged(); !note.empty())
        std::fprintf(stderr, "postclone: %s\n", note.c_str());
    std::printf("put back %llu sectors of %s as they were before the run of %s\n",
                static_cast<unsigned long long>(journal->sectors()), targetPath.c_str(), stampOf(journalPath).c_str());
    return kExitOk;
}

} // namespace Cli
