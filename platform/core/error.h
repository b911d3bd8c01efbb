#pragma once
// The per-thread code of the last failed platform call.

#include <cstdint>

namespace Platform {

class Error {
public:
    static constexpr std::uint32_t None = 0;
    static constexpr std::uint32_t WriteFailed = 5;
    static constexpr std::uint32_t PathNotFound = 32;
    static constexpr std::uint32_t NotSupported = 0x10002;

    static std::uint32_t get() noexcept;
    static void set(std::uint32_t code) noexcept;
};

} // namespace Platform
