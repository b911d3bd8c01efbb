#include "platform/fs/watched_filesys.h"

#include "platform/core/error.h"

namespace Platform {

namespace {

// The whole file from its start, when it is no larger than the limit.
std::optional<std::string> contentsOf(File& file)
{
    if (file.size() > FileChangeLog::kContentLimit)
        return std::nullopt;
    const auto bytes = readWholeFile(file);
    return bytes ? std::optional<std::string>(std::in_place, bytes->begin(), bytes->end()) : std::nullopt;
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

} // namespace

Ref<Filesys> watchFilesys(Ref<Filesys> fs, std::string volumePath, Ref<Interfaces::Storage> storage)
{
    if (!fs)
        return fs;
    return makeRef<WatchedFilesys>(std::move(fs), std::move(volumePath), std::move(storage));
}

} // namespace Platform
