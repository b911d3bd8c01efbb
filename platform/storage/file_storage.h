#pragma once
// An image file or a block device as a storage. Block devices report their logical sector size;
// image files use 512-byte sectors (a trailing partial sector is not part of the storage).

#include "platform/core/access.h"
#include "platform/storage/storage.h"

#include <string>

namespace Platform {

class FileStorage : public Object, public virtual Interfaces::Storage {
public:
    using Access = Platform::Access;

    // Null when the path cannot be opened or is neither a regular file nor a block device; the
    // per-thread Error then holds the errno (32 for a missing path). For writing, a block device
    // is opened exclusively and refused while it or a partition of it is mounted, used as swap or
    // held by another device (EBUSY), and an image file is locked against a second run
    // (EWOULDBLOCK); openProblem() says why.
    static Ref<FileStorage> open(const std::string& path, Access access);
    // Why the last open() on this thread failed, in words naming what holds the device.
    static const std::string& openProblem();
    // What holds a block device or one of its partitions: a mount point, a swap area or another
    // device built on it; empty when nothing does (and for image files).
    static std::string inUse(const std::string& path);
    ~FileStorage() override;

    std::uint32_t elementSize() const override { return elementSize_; }
    std::uint64_t elementCount() const override { return elementCount_; }
    std::uint64_t read(std::uint64_t index, std::uint64_t count, void* buffer) override;
    std::uint64_t write(std::uint64_t index, std::uint64_t count, const void* buffer) override;
    bool flush() override;
    std::string partitionTableChanged() override;

    const std::string& path() const { return path_; }
    // What this target is, independent of the name it was opened by: "block:MAJOR:MINOR:SERIAL"
    // (the serial or WWID the kernel reports, when there is one) or "file:DEVICE:INODE".
    std::string identity() const;

    FileStorage(int fd, std::string path, std::uint32_t elementSize, std::uint64_t elementCount, bool blockDevice)
        : fd_(fd), path_(std::move(path)), elementSize_(elementSize), elementCount_(elementCount),
          blockDevice_(blockDevice)
    {
    }

private:
    int fd_;
    std::string path_;
    std::uint32_t elementSize_;
    std::uint64_t elementCount_;
    bool blockDevice_;
};

} // namespace Platform
