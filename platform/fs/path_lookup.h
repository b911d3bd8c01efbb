#pragma once
// Paths found as Windows finds them: each name compared without regard to ASCII letter case, in
// file systems (or host folders) that keep the case a file was created with.

#include "platform/fs/filesys.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Platform {

// The real path ("/Windows/System32/...") of the entry reached from the root through names, each
// taken as the first entry of its directory whose name matches it; nothing when one is missing.
std::optional<std::string> findPathIgnoringCase(Filesys& fs, const std::vector<std::string_view>& names);

bool equalsIgnoringCase(std::string_view left, std::string_view right) noexcept;

} // namespace Platform
