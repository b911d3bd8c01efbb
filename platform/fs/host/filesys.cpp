#include "platform/fs/host/filesys.h"

#include "platform/core/error.h"
#include "platform/core/string_util.h"

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
    if (::unlink(host.c_str()) != 0) {
        Error::setFromErrno();
        return false;
    }
    return true;
}

} // namespace Platform
