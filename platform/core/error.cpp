#include "platform/core/error.h"

namespace Platform {

namespace {
thread_local std::uint32_t lastError = Error::None;
}

std::uint32_t Error::get() noexcept
{
    return lastError;
}

void Error::set(std::uint32_t code) noexcept
{
    lastError = code;
}

} // namespace Platform
