#include "platform/core/crc32.h"
#include "platform/core/crc32c.h"

#include <array>

namespace Platform {

namespace {

constexpr std::array<std::uint32_t, 256> makeTable(std::uint32_t polynomial)
{
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) ? (value >> 1) ^ polynomial : value >> 1;
        table[i] = value;
    }
    return table;
}

constexpr auto kIeeeTable = makeTable(0xEDB88320u);
constexpr auto kCastagnoliTable = makeTable(0x82F63B78u);

std::uint32_t update(const std::array<std::uint32_t, 256>& table, std::span<const std::uint8_t> bytes,
                     std::uint32_t crc)
{
    crc = ~crc;
    for (std::uint8_t byte : bytes)
        crc = table[(crc ^ byte) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

} // namespace

std::uint32_t crc32(std::span<const std::uint8_t> bytes, std::uint32_t crc) noexcept
{
    return update(kIeeeTable, bytes, crc);
}

std::uint32_t crc32c(std::span<const std::uint8_t> bytes, std::uint32_t crc) noexcept
{
    return update(kCastagnoliTable, bytes, crc);
}

} // namespace Platform
