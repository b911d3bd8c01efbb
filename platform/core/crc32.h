#pragma once
// CRC-32 (IEEE 802.3, reflected), as GPT headers and entry arrays use it.

#include <cstdint>
#include <span>

namespace Platform {

std::uint32_t crc32(std::span<const std::uint8_t> bytes, std::uint32_t crc = 0) noexcept;

} // namespace Platform
