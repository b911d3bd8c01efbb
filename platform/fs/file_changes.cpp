#include "platform/fs/file_changes.h"

#include "platform/core/error.h"

#include <algorithm>

namespace Platform {

namespace {

FileChangeLog* installedLog = nullptr;

// The whole file from its start, when it is no larger than the limit.
std::optional<std::string> contentsOf(File& file)
{
    const std::uint64_t size = file.size();
    if (size > FileChangeLog::kContentLimit || !file.seek(0))
        return std::nullopt;
    std::string bytes(size, '\0');
    std::uint64_t done = 0;
    while (done < size) {
        const std::uint64_t got = file.read(bytes.data() + done, size - done);
        if (got == 0)
            return std::nullopt;
        done += got;
    }
    return bytes;
}

// A file opened for writing: what it held when opened, and whether anything was written since.
// Its record goes to the log when the last handle goes.
class WatchedFile : public File {
public:
    WatchedFile(Ref<File> inner, FileChange change, bool changed)
        : inner_(std::move(inner)), change_(std::move(change)), changed_(changed)
    {
    }
    ~WatchedFile() override
    {
        FileChangeLog* log = FileChangeLog::active();
        if (!changed_ || !log)
            return;
        change_.sizeAfter = inner_->size();
        change_.after = contentsOf(*inner_);
        log->record(std::move(change_));
    }

    std::uint64_t size() override { return inner_->size(); }
    bool seek(std::uint64_t position) override { return inner_->seek(position); }
    std::uint64_t read(void* buffer, std::uint64_t length) override { return inner_->read(buffer, length); }
    std::uint64_t write(const void* buffer, std::uint64_t length) override
    {
        changed_ = true;
        return inner_->write(buffer, length);
    }
    std::uint64_t resize(std::uint64_t size) override
    {
        changed_ = true;
        return inner_->resize(size);
    }
    bool flush() override { return inner_->flush(); }
    std::optional<std::vector<Area>> allocation() override { return inner_->allocation(); }

private:
    Ref<File> inner_;
    FileChange change_;
    bool changed_;
};

class WatchedFilesys : public Filesys {
public:
    WatchedFilesys(Ref<Filesys> inner, std::string volumePath, Ref<Interfaces::Storage> storage)
        : inner_(std::move(inner)), volumePath_(std::move(volumePath)), storage_(std::move(storage))
    {
    }

    Ref<File> openFile(const std::string& path, std::uint32_t flags) override
    {
        if ((flags & OpenFlags::Write) == 0)
            return inner_->openFile(path, flags);
        FileChange change = changeOf(path, FileChange::Kind::Changed);
        const bool existed = describeBefore(path, change);
        auto file = inner_->openFile(path, flags);
        if (!file)
            return {};
        if (!existed)
            change.kind = FileChange::Kind::Created;
        const bool emptied = (flags & OpenFlags::Truncate) != 0 && change.sizeBefore != 0;
        return makeRef<WatchedFile>(std::move(file), std::move(change), !existed || emptied);
    }
    Ref<Directory> openDirectory(const std::string& path) override { return inner_->openDirectory(path); }
    bool createDirectory(const std::string& path) override
    {
        if (!inner_->createDirectory(path))
            return false;
        recordNow(changeOf(path, FileChange::Kind::DirectoryCreated));
        return true;
    }
    bool removeFile(const std::string& path) override
    {
        FileChange change = changeOf(path, FileChange::Kind::Removed);
        describeBefore(path, change);
        if (!inner_->removeFile(path))
            return false;
        recordNow(std::move(change));
        return true;
    }
    bool flush() override { return inner_->flush(); }
    bool readOnly() const override { return inner_->readOnly(); }
    std::optional<bool> windowsLogClean() override { return inner_->windowsLogClean(); }

private:
    FileChange changeOf(const std::string& path, FileChange::Kind kind) const
    {
        FileChange change;
        change.kind = kind;
        change.volumePath = volumePath_;
        change.storage = storage_;
        change.path = path;
        return change;
    }
    // The file's size and (when small) contents before the change; false when it is not there.
    bool describeBefore(const std::string& path, FileChange& change)
    {
        const std::uint32_t error = Error::get();
        const auto existing = inner_->openFile(path, OpenFlags::Read);
        if (!existing) {
            Error::set(error);
            return false;
        }
        change.sizeBefore = existing->size();
        change.before = contentsOf(*existing);
        return true;
    }
    static void recordNow(FileChange change)
    {
        if (FileChangeLog* log = FileChangeLog::active())
            log->record(std::move(change));
    }

    Ref<Filesys> inner_;
    std::string volumePath_;
    Ref<Interfaces::Storage> storage_;
};

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

std::shared_ptr<HostOverlay::Bytes> HostOverlay::contents(const std::string& hostPath) const
{
    const auto found = files_.find(hostPath);
    return found == files_.end() ? nullptr : found->second;
}

std::shared_ptr<HostOverlay::Bytes> HostOverlay::keep(const std::string& hostPath, Bytes bytes)
{
    removed_.erase(hostPath);
    auto& kept = files_[hostPath];
    kept = std::make_shared<Bytes>(std::move(bytes));
    return kept;
}

void HostOverlay::remove(const std::string& hostPath)
{
    files_.erase(hostPath);
    removed_.insert(hostPath);
}

bool HostOverlay::removed(const std::string& hostPath) const
{
    return removed_.count(hostPath) != 0;
}

void HostOverlay::makeDirectory(const std::string& hostPath)
{
    directories_.insert(hostPath);
}

bool HostOverlay::madeDirectory(const std::string& hostPath) const
{
    return directories_.count(hostPath) != 0;
}

std::vector<DirectoryEntry> HostOverlay::madeIn(const std::string& hostFolder) const
{
    const auto inFolder = [&](const std::string& path) {
        return path.size() > hostFolder.size() + 1 && path.compare(0, hostFolder.size(), hostFolder) == 0 &&
               path[hostFolder.size()] == '/' && path.find('/', hostFolder.size() + 1) == std::string::npos;
    };
    std::vector<DirectoryEntry> entries;
    for (const auto& [path, bytes] : files_)
        if (inFolder(path))
            entries.push_back({path.substr(hostFolder.size() + 1), 0, bytes->size()});
    for (const auto& path : directories_)
        if (inFolder(path))
            entries.push_back({path.substr(hostFolder.size() + 1), 1, 0});
    return entries;
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

Ref<Filesys> watchFilesys(Ref<Filesys> fs, std::string volumePath, Ref<Interfaces::Storage> storage)
{
    if (!fs)
        return fs;
    return makeRef<WatchedFilesys>(std::move(fs), std::move(volumePath), std::move(storage));
}

} // namespace Platform
