#include "platform/core/string_util.h"

#include <charconv>

namespace Platform {

std::vector<std::string> StringUtil::split(std::string_view text, std::string_view separator)
{
    std::vector<std::string> pieces;
    if (separator.empty()) {
        pieces.emplace_back(text);
        return pieces;
    }
    std::size_t start = 0;
    for (std::size_t at; (at = text.find(separator, start)) != std::string_view::npos; start = at + separator.size())
        pieces.emplace_back(text.substr(start, at - start));
    pieces.emplace_back(text.substr(start));
    return pieces;
}

std::string StringUtil::join(const std::vector<std::string>& pieces, std::string_view separator)
{
    std::string text;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (i)
            text += separator;
        text += pieces[i];
    }
    return text;
}

bool StringUtil::startsWith(std::string_view text, std::string_view prefix) noexcept
{
    return text.starts_with(prefix);
}

bool StringUtil::endsWith(std::string_view text, std::string_view suffix) noexcept
{
    return text.ends_with(suffix);
}

bool StringUtil::endsWith(std::string_view text, std::string_view suffix, bool ignoreCase)
{
    if (!ignoreCase || suffix.size() > text.size())
        return text.ends_with(suffix);
    return lower(text.substr(text.size() - suffix.size())) == lower(suffix);
}

std::string_view StringUtil::ltrim(std::string_view text) noexcept
{
    const auto first = text.find_first_not_of(" \t");
    return first == std::string_view::npos ? std::string_view{} : text.substr(first);
}

std::string StringUtil::lower(std::string_view text)
{
    std::string result(text);
    for (char& c : result)
        if (c >= 'A' && c <= 'Z')
            c = char(c - 'A' + 'a');
    return result;
}

std::string StringUtil::upper(std::string_view text)
{
    std::string result(text);
    for (char& c : result)
        if (c >= 'a' && c <= 'z')
            c = char(c - 'a' + 'A');
    return result;
}

std::string StringUtil::replace(std::string_view text, char from, char to)
{
    std::string result(text);
    for (char& c : result)
        if (c == from)
            c = to;
    return result;
}

std::string StringUtil::replace(std::string_view text, std::string_view from, std::string_view to)
{
    if (from.empty())
        return std::string(text);
    std::string result;
    std::size_t start = 0;
    for (std::size_t at; (at = text.find(from, start)) != std::string_view::npos; start = at + from.size()) {
        result.append(text.substr(start, at - start));
        result.append(to);
    }
    result.append(text.substr(start));
    return result;
}

std::string StrConv::str(std::uint64_t value, unsigned base, unsigned width)
{
    char digits[65];
    auto [end, ec] = std::to_chars(digits, digits + sizeof digits, value, base < 2 || base > 36 ? 10 : int(base));
    std::string text(digits, end);
    for (char& c : text)
        if (c >= 'a' && c <= 'z')
            c = char(c - 'a' + 'A');
    if (text.size() < width)
        text.insert(0, width - text.size(), '0');
    return text;
}

std::string StrConv::str(std::int64_t value)
{
    return std::to_string(value);
}

bool StrConv::parse(std::string_view text, unsigned base, std::uint64_t& out) noexcept
{
    if (text.empty() || base < 2 || base > 16)
        return false;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out, int(base));
    return ec == std::errc() && end == text.data() + text.size();
}

} // namespace Platform
