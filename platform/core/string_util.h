#pragma once
// Text helpers used by the id strings, UUID text and the text-file rewriters.

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Platform {

class StringUtil {
public:
    // Splits at every separator; empty pieces are kept ("a--b" gives "a", "", "b").
    static std::vector<std::string> split(std::string_view text, std::string_view separator);
    static std::string join(const std::vector<std::string>& pieces, std::string_view separator);
    static bool startsWith(std::string_view text, std::string_view prefix) noexcept;
    static bool endsWith(std::string_view text, std::string_view suffix) noexcept;
    // ignoreCase: ASCII letters match in either case (".EFI" ends with ".efi").
    static bool endsWith(std::string_view text, std::string_view suffix, bool ignoreCase);
    // Removes leading blanks and tabs.
    static std::string_view ltrim(std::string_view text) noexcept;
    // ASCII letter case; ids are hex text.
    static std::string lower(std::string_view text);
    static std::string upper(std::string_view text);
    // Replaces every occurrence.
    static std::string replace(std::string_view text, char from, char to);
    static std::string replace(std::string_view text, std::string_view from, std::string_view to);
};

class StrConv {
public:
    // Digits in upper case, zero-padded to width.
    static std::string str(std::uint64_t value, unsigned base = 10, unsigned width = 0);
    static std::string str(std::int64_t value);

    // Parses the whole text as an unsigned number in base (2..16); false on an empty text, a
    // stray character or a value that does not fit T.
    template <typename T>
    requires std::is_unsigned_v<T>
    static bool num(std::string_view text, T& out, unsigned base = 10) noexcept
    {
        std::uint64_t value = 0;
        if (!parse(text, base, value) || value > static_cast<std::uint64_t>(T(~T(0))))
            return false;
        out = static_cast<T>(value);
        return true;
    }

private:
    static bool parse(std::string_view text, unsigned base, std::uint64_t& out) noexcept;
};

} // namespace Platform
