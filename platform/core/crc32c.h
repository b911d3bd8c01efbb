#pragma once
// CRC-32C (Castagnoli), as Btrfs and XFS checksum their metadata.

#include <cstdint>
#include <span>

namespace Platform {

std::uint32_t crc32c(std::span<const std::uint8_t> bytes, std::uint32_t crc = 0) noexcept;

} // namespace Platform
