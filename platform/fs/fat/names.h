#pragma once
// Names in FAT directories: long names (UTF-16 on disk, UTF-8 in the facade), 8.3 short names
// with the checksum that ties long-name entries to them, and the short name a new long name gets.

#include "platform/core/unicode.h"

#include <array>
#include <cstdint>
#include <set>
#include <span>
#include <string>

namespace Platform::Fat {

using ShortName = std::array<std::uint8_t, 11>; // "NAME    EXT" as the entry holds it

std::uint8_t shortNameChecksum(std::span<const std::uint8_t, 11> name);
// "NAME    EXT" as "NAME.EXT".
std::string shortNameText(std::span<const std::uint8_t, 11> name);

// The 8.3 name for a name: its own upper-case form when that fits and is free, else BASE~N.EXT
// (the lowest free N). needsLongName says whether the name must also be stored as a long name.
ShortName shortNameFor(const std::string& name, const std::set<std::string>& takenLowerCase, bool& needsLongName);

} // namespace Platform::Fat
