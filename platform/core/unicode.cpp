#include "platform/core/unicode.h"

namespace Platform {

std::string utf8(const std::u16string& units)
{
    std::string text;
    for (std::size_t i = 0; i < units.size(); ++i) {
        std::uint32_t code = units[i];
        if (code >= 0xD800 && code < 0xDC00 && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000)
            code = 0x10000 + ((code - 0xD800) << 10) + (units[++i] - 0xDC00);
        if (code < 0x80) {
            text += char(code);
        } else if (code < 0x800) {
            text += char(0xC0 | code >> 6);
            text += char(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            text += char(0xE0 | code >> 12);
            text += char(0x80 | (code >> 6 & 0x3F));
            text += char(0x80 | (code & 0x3F));
        } else {
            text += char(0xF0 | code >> 18);
            text += char(0x80 | (code >> 12 & 0x3F));
            text += char(0x80 | (code >> 6 & 0x3F));
            text += char(0x80 | (code & 0x3F));
        }
    }
    return text;
}

std::u16string utf16(const std::string& text)
{
    std::u16string units;
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const std::size_t length = byte < 0x80         ? 1
                                   : (byte >> 5) == 6  ? 2
                                   : (byte >> 4) == 14 ? 3
                                   : (byte >> 3) == 30 ? 4
                                                       : 1;
        std::uint32_t code = length == 1 ? byte : byte & (0x7F >> length);
        bool valid = i + length <= text.size();
        for (std::size_t k = 1; valid && k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            valid = (next & 0xC0) == 0x80;
            code = code << 6 | (next & 0x3F);
        }
        if (!valid) {
            code = byte;
            i += 1;
        } else {
            i += length;
        }
        if (code >= 0x10000) {
            units += char16_t(0xD800 + ((code - 0x10000) >> 10));
            units += char16_t(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            units += char16_t(code);
        }
    }
    return units;
}

} // namespace Platform
