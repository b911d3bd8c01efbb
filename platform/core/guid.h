#pragma once
// 16-byte ids in their on-disk byte order, and GUID text (mixed-endian, as Windows and GPT
// tools print it) turned into those bytes at compile time.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace Platform {

using Guid = std::array<std::uint8_t, 16>;

namespace Detail {
constexpr std::uint8_t hexDigit(char c)
{
    return std::uint8_t(c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c - 'A' + 10);
}
constexpr std::uint8_t hexByte(std::string_view text, std::size_t at)
{
    return std::uint8_t(hexDigit(text[at]) << 4 | hexDigit(text[at + 1]));
}

// Text positions of the 16 bytes in storage order: the first three groups are little-endian.
inline constexpr std::size_t kGuidTextPositions[16] = {6, 4, 2, 0, 11, 9, 16, 14, 19, 21, 24, 26, 28, 30, 32, 34};
} // namespace Detail

// REQUIRES: text is "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx".
constexpr Guid guidFromText(std::string_view text)
{
    constexpr const auto& kPositions = Detail::kGuidTextPositions;
    Guid guid{};
    for (std::size_t i = 0; i < 16; ++i)
        guid[i] = Detail::hexByte(text, kPositions[i]);
    return guid;
}

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" in upper case, as Windows prints GUIDs.
inline std::string guidToText(const Guid& guid)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text = "00000000-0000-0000-0000-000000000000";
    for (std::size_t i = 0; i < 16; ++i) {
        text[Detail::kGuidTextPositions[i]] = kDigits[guid[i] >> 4];
        text[Detail::kGuidTextPositions[i] + 1] = kDigits[guid[i] & 0xF];
    }
    return text;
}

} // namespace Platform
