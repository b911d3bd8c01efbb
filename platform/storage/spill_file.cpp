#include "platform/storage/spill_file.h"

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace Platform {

namespace {

bool writeAll(int fd, std::span<const std::uint8_t> bytes, off_t at)
{
    return bytes.empty() || ::pwrite(fd, bytes.data(), bytes.size(), at) == ssize_t(bytes.size());
}

bool readAll(int fd, std::span<std::uint8_t> bytes, off_t at)
{
    return bytes.empty() || ::pread(fd, bytes.data(), bytes.size(), at) == ssize_t(bytes.size());
}

} // namespace

SpillFile::SpillFile(std::size_t slotBytes) : slotBytes_(slotBytes)
{
    const char* folder = std::getenv("TMPDIR");
    std::string path = std::string(folder && *folder ? folder : "/tmp") + "/postclone-spill-XXXXXX";
    fd_ = ::mkostemp(path.data(), O_CLOEXEC);
    if (fd_ >= 0)
        ::unlink(path.c_str()); // gone with the process, whatever ends it
}

SpillFile::~SpillFile()
{
    if (fd_ >= 0)
        ::close(fd_);
}

std::int64_t SpillFile::store(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second)
{
    if (fd_ < 0 || first.size() + second.size() > slotBytes_)
        return -1;
    std::int64_t slot = next_;
    if (!free_.empty()) {
        slot = free_.back();
        free_.pop_back();
    } else {
        ++next_;
    }
    const off_t at = off_t(slot) * off_t(slotBytes_);
    if (!writeAll(fd_, first, at) || !writeAll(fd_, second, at + off_t(first.size()))) {
        free_.push_back(slot);
        return -1;
    }
    return slot;
}

bool SpillFile::peek(std::int64_t slot, std::span<std::uint8_t> first, std::span<std::uint8_t> second) const
{
    const off_t at = off_t(slot) * off_t(slotBytes_);
    return readAll(fd_, first, at) && readAll(fd_, second, at + off_t(first.size()));
}

bool SpillFile::load(std::int64_t slot, std::span<std::uint8_t> first, std::span<std::uint8_t> second)
{
    const bool ok = peek(slot, first, second);
    release(slot);
    return ok;
}

} // namespace Platform
