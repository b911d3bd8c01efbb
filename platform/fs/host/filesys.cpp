#include "platform/fs/host/filesys.h"

#include "platform/core/error.h"
#include "platform/core/string_util.h"
#include "platform/fs/listed_directory.h"
#include "platform/fs/memory_file.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Platform {

namespace {

// A path outside the root is one that is not there.
bool refuseOutsidePath(const std::string& host)
{
    if (!host.empty())
        return false;
    Error::set(Error::PathNotFound);
    return true;
}

class HostFile : public File {
public:
    explicit HostFile(int fd) : fd_(fd) {}
    ~HostFile() override { ::close(fd_); }

    std::uint64_t size() override
    {
        struct stat info {};
        return ::fstat(fd_, &info) == 0 ? std::uint64_t(info.st_size) : 0;
    }
    bool seek(std::uint64_t position) override
    {
        position_ = position;
        return true;
    }
    std::uint64_t read(void* buffer, std::uint64_t length) override
    {
        const ssize_t done = ::pread(fd_, buffer, length, off_t(position_));
        if (done < 0) {
            Error::setFromErrno();
            return 0;
        }
        position_ += std::uint64_t(done);
        return std::uint64_t(done);
    }
    std::uint64_t write(const void* buffer, std::uint64_t length) override
    {
        const ssize_t done = ::pwrite(fd_, buffer, length, off_t(position_));
        if (done < 0) {
            Error::setFromErrno();
            return 0;
        }
        position_ += std::uint64_t(done);
        return std::uint64_t(done);
    }
    std::uint64_t resize(std::uint64_t newSize) override
    {
        if (::ftruncate(fd_, off_t(newSize)) != 0)
            Error::setFromErrno();
        return size();
    }
    bool flush() override { return ::fsync(fd_) == 0; }

private:
    int fd_;
    std::uint64_t position_ = 0;
};

class HostDirectory : public Directory {
public:
    HostDirectory(DIR* handle, std::string path) : handle_(handle), path_(std::move(path)) {}
    ~HostDirectory() override { ::closedir(handle_); }

    bool next(DirectoryEntry& entry) override
    {
        while (const dirent* item = ::readdir(handle_)) {
            const std::string name = item->d_name;
            if (name == "." || name == "..")
                continue;
            struct stat info {};
            ::lstat((path_ + "/" + name).c_str(), &info);
            entry = {name, S_ISDIR(info.st_mode) ? 1u : 0u, std::uint64_t(info.st_size)};
            return true;
        }
        return false;
    }

private:
    DIR* handle_;
    std::string path_;
};

} // namespace

std::string HostFilesys::hostPath(const std::string& path) const
{
    for (const auto& part : StringUtil::split(path, "/"))
        if (part == "..")
            return {};
    return root_ + (StringUtil::startsWith(path, "/") ? "" : "/") + path;
}

Ref<File> HostFilesys::openExisting(const std::string& path, Access access)
{
    const std::string host = hostPath(path);
    if (refuseOutsidePath(host))
        return {};
    return overlay_ ? openInOverlay(host, access) : openOnHost(host, access);
}

Ref<File> HostFilesys::openOnHost(const std::string& host, Access access)
{
    const int fd = ::open(host.c_str(), (access == Access::ReadWrite ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) {
        Error::setFromErrno();
        return {};
    }
    auto file = makeRef<HostFile>(fd);
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) {
        Error::set(Error::IsDirectory);
        return {};
    }
    return file;
}

bool HostFilesys::createEmptyFile(const std::string& path)
{
    const std::string host = hostPath(path);
    if (refuseOutsidePath(host))
        return false;
    if (overlay_)
        return createInOverlay(host);
    const int fd = ::open(host.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        Error::setFromErrno();
        return false;
    }
    ::close(fd);
    return true;
}

Ref<Directory> HostFilesys::openDirectory(const std::string& path)
{
    const std::string host = hostPath(path);
    if (overlay_ && !host.empty())
        return listWithOverlay(host);
    DIR* handle = host.empty() ? nullptr : ::opendir(host.c_str());
    if (!handle) {
        Error::setFromErrno();
        return {};
    }
    return makeRef<HostDirectory>(handle, host);
}

bool HostFilesys::makeDirectory(const std::string& path)
{
    const std::string host = hostPath(path);
    if (refuseOutsidePath(host))
        return false;
    if (overlay_)
        return makeDirectoryInOverlay(host);
    if (::mkdir(host.c_str(), 0755) != 0) {
        Error::setFromErrno();
        return false;
    }
    return true;
}

bool HostFilesys::removeExisting(const std::string& path)
{
    const std::string host = hostPath(path);
    if (refuseOutsidePath(host))
        return false;
    if (overlay_)
        return removeInOverlay(host);
    if (::unlink(host.c_str()) != 0) {
        Error::setFromErrno();
        return false;
    }
    return true;
}

namespace {

enum class HostKind { Missing, File, Directory };

HostKind hostKind(const std::string& host)
{
    struct stat info {};
    if (::stat(host.c_str(), &info) != 0)
        return HostKind::Missing;
    return S_ISDIR(info.st_mode) ? HostKind::Directory : HostKind::File;
}

std::string parentOf(const std::string& host)
{
    const auto slash = host.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : host.substr(0, slash);
}

} // namespace

bool HostFilesys::existsInOverlay(const std::string& host) const
{
    if (overlay_->removed(host))
        return false;
    return overlay_->contents(host) || overlay_->madeDirectory(host) || hostKind(host) != HostKind::Missing;
}

Ref<File> HostFilesys::openInOverlay(const std::string& host, Access access)
{
    if (overlay_->removed(host)) {
        Error::set(Error::PathNotFound);
        return {};
    }
    if (auto kept = overlay_->contents(host))
        return makeRef<MemoryFile>(std::move(kept));
    if (overlay_->madeDirectory(host)) {
        Error::set(Error::IsDirectory);
        return {};
    }
    // A file opened for reading only is read where it is: the host's copy stands.
    const auto onHost = openOnHost(host, Access::ReadOnly);
    if (!onHost || access == Access::ReadOnly)
        return onHost;
    auto bytes = readWholeFile(*onHost);
    return bytes ? makeRef<MemoryFile>(overlay_->keep(host, std::move(*bytes))) : Ref<File>();
}

bool HostFilesys::createInOverlay(const std::string& host)
{
    if (existsInOverlay(host)) {
        Error::set(Error::Exists);
        return false;
    }
    const std::string parent = parentOf(host);
    if (!overlay_->madeDirectory(parent) && hostKind(parent) != HostKind::Directory) {
        Error::set(Error::PathNotFound);
        return false;
    }
    overlay_->keep(host, {});
    return true;
}

bool HostFilesys::makeDirectoryInOverlay(const std::string& host)
{
    if (existsInOverlay(host)) {
        Error::set(Error::Exists);
        return false;
    }
    overlay_->makeDirectory(host);
    return true;
}

bool HostFilesys::removeInOverlay(const std::string& host)
{
    if (!overlay_->contents(host)) {
        const HostKind kind = overlay_->removed(host) ? HostKind::Missing : hostKind(host);
        if (kind != HostKind::File) {
            Error::set(kind == HostKind::Directory ? Error::IsDirectory : Error::PathNotFound);
            return false;
        }
    }
    overlay_->remove(host);
    return true;
}

Ref<Directory> HostFilesys::listWithOverlay(const std::string& host)
{
    std::vector<DirectoryEntry> entries;
    if (!overlay_->madeDirectory(host)) {
        DIR* handle = ::opendir(host.c_str());
        if (!handle) {
            Error::setFromErrno();
            return {};
        }
        HostDirectory listing(handle, host);
        for (DirectoryEntry entry; listing.next(entry);) {
            const std::string path = host + "/" + entry.name;
            if (overlay_->removed(path))
                continue;
            if (const auto kept = overlay_->contents(path))
                entry.size = kept->size();
            entries.push_back(entry);
        }
    }
    for (const DirectoryEntry& made : overlay_->madeIn(host))
        if (std::none_of(entries.begin(), entries.end(), [&](const DirectoryEntry& e) { return e.name == made.name; }))
            entries.push_back(made);
    return makeRef<ListedDirectory>(std::move(entries));
}

} // namespace Platform
