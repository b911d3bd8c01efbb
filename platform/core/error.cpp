#include "platform/core/error.h"

#include <cerrno>

namespace Platform {

namespace {
thread_local std::uint32_t lastError = Error::None;
thread_local std::string lastText;
} // namespace

std::uint32_t Error::get() noexcept
{
    return lastError;
}

void Error::set(std::uint32_t code) noexcept
{
    lastError = code;
    lastText.clear();
}

void Error::set(std::uint32_t code, std::string text)
{
    lastError = code;
    lastText = std::move(text);
}

const std::string& Error::text() noexcept
{
    return lastText;
}

std::uint32_t Error::fromErrno(int value) noexcept
{
    switch (value) {
    case ENOENT:
        return PathNotFound;
    case EROFS:
    case EACCES:
    case EPERM:
        return ReadOnly;
    case EBUSY:
    case EEXIST:
    case ENOTDIR:
    case EISDIR:
    case EINVAL:
    case EFBIG:
    case ENOSPC:
        return std::uint32_t(value);
    case EUCLEAN:
        return Corrupt;
    case ENOTSUP:
        return NotSupported;
    case ENXIO:
    case ENODEV:
        return DeviceBroken;
    default:
        return Io;
    }
}

} // namespace Platform
