#include "platform/storage/file_storage.h"

#include "platform/core/error.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Platform {

namespace {

constexpr std::uint32_t kImageSectorSize = 512;

void setErrorFromErrno()
{
    Error::set(errno == ENOENT ? Error::PathNotFound : std::uint32_t(errno));
}

// Transfers all bytes or stops at the first error or end of file; returns the bytes moved.
template <typename Transfer>
std::uint64_t transferAll(Transfer transfer, std::uint64_t bytes, std::uint64_t offset)
{
    std::uint64_t done = 0;
    while (done < bytes) {
        const ssize_t moved = transfer(done, bytes - done, off_t(offset + done));
        if (moved < 0 && errno == EINTR)
            continue;
        if (moved <= 0)
            break;
        done += std::uint64_t(moved);
    }
    return done;
}

} // namespace

Ref<FileStorage> FileStorage::open(const std::string& path, Access access)
{
    const int fd = ::open(path.c_str(), (access == Access::ReadWrite ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) {
        setErrorFromErrno();
        return {};
    }
    struct stat info {};
    std::uint32_t sectorSize = kImageSectorSize;
    std::uint64_t bytes = 0;
    bool usable = ::fstat(fd, &info) == 0;
    if (usable && S_ISBLK(info.st_mode)) {
        int logical = 0;
        usable = ::ioctl(fd, BLKSSZGET, &logical) == 0 && ::ioctl(fd, BLKGETSIZE64, &bytes) == 0 && logical > 0;
        sectorSize = std::uint32_t(logical);
    } else if (usable && S_ISREG(info.st_mode)) {
        bytes = std::uint64_t(info.st_size);
    } else {
        errno = EINVAL;
        usable = false;
    }
    if (!usable) {
        setErrorFromErrno();
        ::close(fd);
        return {};
    }
    auto storage = makeRef<FileStorage>(fd, path, sectorSize, bytes / sectorSize);
    if (!storage)
        ::close(fd);
    return storage;
}

FileStorage::~FileStorage()
{
    ::close(fd_);
}

std::uint64_t FileStorage::read(std::uint64_t index, std::uint64_t count, void* buffer)
{
    if (index >= elementCount_)
        return 0;
    count = std::min(count, elementCount_ - index);
    auto* bytes = static_cast<char*>(buffer);
    const auto done = transferAll(
        [&](std::uint64_t at, std::uint64_t length, off_t offset) { return ::pread(fd_, bytes + at, length, offset); },
        count * elementSize_, index * elementSize_);
    if (done < count * elementSize_)
        setErrorFromErrno();
    return done / elementSize_;
}

std::uint64_t FileStorage::write(std::uint64_t index, std::uint64_t count, const void* buffer)
{
    if (index >= elementCount_)
        return 0;
    count = std::min(count, elementCount_ - index);
    const auto* bytes = static_cast<const char*>(buffer);
    const auto done = transferAll(
        [&](std::uint64_t at, std::uint64_t length, off_t offset) { return ::pwrite(fd_, bytes + at, length, offset); },
        count * elementSize_, index * elementSize_);
    if (done < count * elementSize_)
        setErrorFromErrno();
    return done / elementSize_;
}

bool FileStorage::flush()
{
    return ::fsync(fd_) == 0;
}

} // namespace Platform
