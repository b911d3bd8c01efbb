#include "platform/fs/path_lookup.h"

#include <algorithm>

namespace Platform {

bool equalsIgnoringCase(std::string_view left, std::string_view right) noexcept
{
    const auto lower = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : char(c); };
    return std::ranges::equal(left, right, [&](char a, char b) { return lower(a) == lower(b); });
}

std::optional<std::string> findPathIgnoringCase(Filesys& fs, const std::vector<std::string_view>& names)
{
    std::string path;
    for (const std::string_view name : names) {
        const auto listing = fs.openDirectory(path.empty() ? "/" : path);
        if (!listing)
            return std::nullopt;
        std::optional<std::string> found;
        for (DirectoryEntry entry; !found && listing->next(entry);)
            if (equalsIgnoringCase(entry.name, name))
                found = entry.name;
        if (!found)
            return std::nullopt;
        path += "/" + *found;
    }
    return path;
}

} // namespace Platform
