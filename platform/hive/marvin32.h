#pragma once
// Marvin32, the keyed hash that guards each entry of a new-format transaction log.

#include <cstdint>
#include <span>

namespace Platform::Hive {

std::uint64_t marvin32(std::span<const std::uint8_t> bytes, std::uint64_t seed);

} // namespace Platform::Hive
