#include "platform/fs/fat/names.h"

#include "platform/core/string_util.h"
#include "platform/fs/fat/layout.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace Platform::Fat {

std::uint8_t shortNameChecksum(std::span<const std::uint8_t, 11> name)
{
    std::uint8_t sum = 0;
    for (std::uint8_t byte : name)
        sum = std::uint8_t(((sum & 1) << 7) + (sum >> 1) + byte);
    return sum;
}

std::string shortNameText(std::span<const std::uint8_t, 11> name)
{
    std::string base(name.begin(), name.begin() + 8), ext(name.begin() + 8, name.end());
    base.erase(base.find_last_not_of(' ') + 1);
    ext.erase(ext.find_last_not_of(' ') + 1);
    if (!base.empty() && static_cast<std::uint8_t>(base[0]) == Layout::Entry::kStandsForE5)
        base[0] = char(Layout::Entry::kDeleted);
    return ext.empty() ? base : base + "." + ext;
}

namespace {

bool validShortChar(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("!#$%&'()-@^_`{}~", c) != nullptr;
}

} // namespace

ShortName shortNameFor(const std::string& name, const std::set<std::string>& taken, bool& needsLongName)
{
    const auto dot = name.rfind('.');
    std::string base = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
    std::string ext = dot == std::string::npos || dot == 0 ? "" : name.substr(dot + 1);
    const auto clean = [](const std::string& text) {
        std::string out;
        for (char c : text)
            if (validShortChar(c))
                out += char(std::toupper(static_cast<unsigned char>(c)));
        return out;
    };
    const std::string cleanBase = clean(base), cleanExt = clean(ext).substr(0, 3);
    const bool fits = cleanBase == base && clean(ext) == ext && !base.empty() && base.size() <= 8 && ext.size() <= 3;
    needsLongName = !fits;
    const auto compose = [&](const std::string& b) {
        ShortName raw;
        raw.fill(' ');
        std::copy_n(b.begin(), std::min<std::size_t>(b.size(), 8), raw.begin());
        std::copy_n(cleanExt.begin(), cleanExt.size(), raw.begin() + 8);
        return raw;
    };
    const auto text = [](const ShortName& raw) { return StringUtil::lower(shortNameText(raw)); };
    if (fits && !taken.count(text(compose(cleanBase))))
        return compose(cleanBase);
    needsLongName = true;
    for (int n = 1; n < 1000000; ++n) {
        std::string tail = "~"; // appended: GCC 12 at -O3 warns falsely (-Wrestrict) on "~" + ...
        tail += std::to_string(n);
        const auto candidate = compose((cleanBase.empty() ? "_" : cleanBase).substr(0, 8 - tail.size()) + tail);
        if (!taken.count(text(candidate)))
            return candidate;
    }
    return compose("_");
}

} // namespace Platform::Fat
