#include "platform/storage/file_storage.h"

#include "platform/core/error.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/fs.h>
#include <map>
#include <sstream>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace Platform {

namespace {

constexpr std::uint32_t kImageSectorSize = 512;

void setErrorFromErrno()
{
    Error::setFromErrno();
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

thread_local std::string lastOpenProblem;

std::string deviceNumber(dev_t device)
{
    return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

std::string readLine(const std::filesystem::path& file)
{
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

// The block device and, for a whole disk, its partitions, as "major:minor" with their names.
std::map<std::string, std::string> deviceFamily(dev_t device, const std::string& path)
{
    std::map<std::string, std::string> family{{deviceNumber(device), path}};
    std::error_code error;
    const std::filesystem::path sys = "/sys/dev/block/" + deviceNumber(device);
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::canonical(sys, error), error))
        if (std::filesystem::exists(entry.path() / "partition", error))
            family[readLine(entry.path() / "dev")] = "/dev/" + entry.path().filename().string();
    return family;
}

// Mount points, swap areas and devices built on the family; empty when there are none.
std::string holders(const std::map<std::string, std::string>& family)
{
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string id, parent, number, root, mountPoint;
        fields >> id >> parent >> number >> root >> mountPoint;
        if (const auto found = family.find(number); found != family.end())
            return found->second + " is mounted at " + mountPoint;
    }
    std::ifstream swaps("/proc/swaps");
    for (std::string line; std::getline(swaps, line);) {
        const std::string swap = line.substr(0, line.find_first_of(" \t"));
        struct stat info {};
        if (::stat(swap.c_str(), &info) == 0 && S_ISBLK(info.st_mode) && family.count(deviceNumber(info.st_rdev)))
            return swap + " is in use as swap";
    }
    std::error_code error;
    for (const auto& [number, name] : family)
        for (const auto& holder : std::filesystem::directory_iterator("/sys/dev/block/" + number + "/holders", error))
            return name + " is held by " + holder.path().filename().string();
    return {};
}

} // namespace

const std::string& FileStorage::openProblem()
{
    return lastOpenProblem;
}

std::string FileStorage::inUse(const std::string& path)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISBLK(info.st_mode))
        return {};
    return holders(deviceFamily(info.st_rdev, path));
}

Ref<FileStorage> FileStorage::open(const std::string& path, Access access)
{
    lastOpenProblem.clear();
    const bool writing = access == Access::ReadWrite;
    struct stat named {};
    const bool blockDevice = ::stat(path.c_str(), &named) == 0 && S_ISBLK(named.st_mode);
    if (writing && blockDevice) {
        if ((lastOpenProblem = inUse(path)); !lastOpenProblem.empty()) {
            Error::set(Error::Busy);
            return {};
        }
    }
    // Exclusive on a device: the kernel then refuses it to a mount, and a mount to us.
    const int fd =
        ::open(path.c_str(), (writing ? O_RDWR : O_RDONLY) | (writing && blockDevice ? O_EXCL : 0) | O_CLOEXEC);
    if (fd < 0) {
        if (errno == EBUSY)
            lastOpenProblem = path + " is in use (mounted, swap, or held by another program)";
        setErrorFromErrno();
        return {};
    }
    // Two runs editing one image would each write what the other does not know of.
    if (writing && !blockDevice && ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        lastOpenProblem = path + " is being edited by another run";
        setErrorFromErrno();
        ::close(fd);
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
    auto storage = makeRef<FileStorage>(fd, path, sectorSize, bytes / sectorSize, S_ISBLK(info.st_mode));
    if (!storage)
        ::close(fd);
    return storage;
}

std::string FileStorage::identity() const
{
    struct stat info {};
    if (::fstat(fd_, &info) != 0)
        return "path:" + path_;
    if (!blockDevice_)
        return "file:" + std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
    const std::string number = deviceNumber(info.st_rdev);
    std::string serial;
    for (const char* name : {"device/serial", "device/wwid", "wwid", "serial"}) {
        serial = readLine("/sys/dev/block/" + number + "/" + name);
        if (!serial.empty())
            break;
    }
    return "block:" + number + ":" + serial;
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

std::string FileStorage::partitionTableChanged()
{
    if (!blockDevice_)
        return {};
    if (::ioctl(fd_, BLKRRPART) == 0)
        return {};
    const std::string cause = std::strerror(errno);
    // The kernel keeps its partitions while one is busy; udev can still read the new ids.
    struct stat info {};
    if (::fstat(fd_, &info) == 0)
        for (const auto& [number, name] : deviceFamily(info.st_rdev, path_))
            std::ofstream("/sys/dev/block/" + number + "/uevent") << "change";
    return "The kernel could not re-read the partition table of " + path_ + " (" + cause +
           "); it shows the new partition ids after the next reboot or partprobe";
}

} // namespace Platform
