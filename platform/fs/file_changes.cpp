#include "platform/fs/file_changes.h"

#include <algorithm>

namespace Platform {

namespace {

FileChangeLog* installedLog = nullptr;

bool sameFile(const FileChange& a, const FileChange& b)
{
    return a.storage.get() == b.storage.get() && a.volumePath == b.volumePath && a.path == b.path;
}

bool endsAsItBegan(const FileChange& change)
{
    return change.kind == FileChange::Kind::Changed && change.before && change.after && *change.before == *change.after;
}

} // namespace

bool FileChange::isText() const
{
    const auto textual = [](const std::optional<std::string>& bytes) {
        return !bytes || bytes->find('\0') == std::string::npos;
    };
    return (before || after) && textual(before) && textual(after) && (before || kind == Kind::Created) &&
           (after || kind == Kind::Removed);
}

void FileChangeLog::install(FileChangeLog* log)
{
    installedLog = log;
}

FileChangeLog* FileChangeLog::active()
{
    return installedLog;
}

void FileChangeLog::record(FileChange change)
{
    using Kind = FileChange::Kind;
    const auto earlier =
        std::find_if(pending_.begin(), pending_.end(), [&](const FileChange& c) { return sameFile(c, change); });
    if (earlier == pending_.end()) {
        if (!endsAsItBegan(change))
            pending_.push_back(std::move(change));
        return;
    }
    // The earlier record keeps what the file was; this one says what it is now.
    if (change.kind == Kind::Removed && earlier->kind == Kind::Created) {
        pending_.erase(earlier);
        return;
    }
    if (change.kind == Kind::Removed)
        earlier->kind = Kind::Removed;
    else if (earlier->kind == Kind::Removed)
        earlier->kind = Kind::Changed;
    earlier->sizeAfter = change.sizeAfter;
    earlier->after = std::move(change.after);
    if (endsAsItBegan(*earlier))
        pending_.erase(earlier);
}

std::vector<FileChange> FileChangeLog::take()
{
    return std::exchange(pending_, {});
}

} // namespace Platform
