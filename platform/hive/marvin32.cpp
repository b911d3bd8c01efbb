#include "platform/hive/marvin32.h"

#include <bit>

namespace Platform::Hive {

namespace {

struct State {
    std::uint32_t low;
    std::uint32_t high;

    void mix(std::uint32_t word)
    {
        low += word;
        high ^= low;
        low = std::rotl(low, 20) + high;
        high = std::rotl(high, 9) ^ low;
        low = std::rotl(low, 27) + high;
        high = std::rotl(high, 19);
    }
};

} // namespace

std::uint64_t marvin32(std::span<const std::uint8_t> bytes, std::uint64_t seed)
{
    State state{std::uint32_t(seed), std::uint32_t(seed >> 32)};
    std::size_t at = 0;
    for (; bytes.size() - at >= 4; at += 4)
        state.mix(std::uint32_t(bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16) | std::uint32_t(bytes[at + 3])
                                                                                            << 24);
    // The tail is closed by a 0x80 byte above the bytes that remain.
    std::uint32_t last = 0x80;
    for (std::size_t i = bytes.size(); i-- > at;)
        last = last << 8 | bytes[i];
    state.mix(last);
    state.mix(0);
    return std::uint64_t(state.high) << 32 | state.low;
}

} // namespace Platform::Hive
