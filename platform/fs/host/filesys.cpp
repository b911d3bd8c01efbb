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

// Why a change cannot even be tried, or None.
std::uint32_t refusal(bool readOnly, const std::string& host)
{
    return readOnly ? Error::ReadOnly : host.empty() ? Error::PathNotFound : Error::None;
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

Ref<File> HostFilesys::openFile(const std::string& path, std::uint32_t flags)
{
    const bool write = (flags & OpenFlags::Write) != 0;
    if (write && readOnly_) {
        Error::set(Error::ReadOnly);
        return {};
    }
    int mode = write ? O_RDWR : O_RDONLY;
    if (flags & OpenFlags::Create)
        mode |= O_CREAT;
    if (flags & OpenFlags::Truncate)
        mode |= O_TRUNC;
    const std::string host = hostPath(path);
    const int fd = host.empty() ? -1 : ::open(host.c_str(), mode | O_CLOEXEC, 0644);
    if (fd < 0) {
        Error::setFromErrno();
        return {};
    }
    return makeRef<HostFile>(fd);
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

bool HostFilesys::createDirectory(const std::string& path)
{
    const std::string host = hostPath(path);
    if (const std::uint32_t code = refusal(readOnly_, host)) {
        Error::set(code);
        return false;
    }
    if (::mkdir(host.c_str(), 0755) != 0) {
        Error::setFromErrno();
        return false;
    }
    return true;
}

bool HostFilesys::removeFile(const std::string& path)
{
    const std::string host = hostPath(path);
    if (const std::uint32_t code = refusal(readOnly_, host)) {
        Error::set(code);
        return false;
    }
    if (::unlink(host.c_str()) != 0) {
        Error::setFromErrno();
        return false;
    }
    return true;
}

} // namespace Platform
