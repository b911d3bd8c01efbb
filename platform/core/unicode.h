#pragma once
// Text between UTF-8 (how the system passes names) and UTF-16 (how FAT long names and registry
// hives store them).

#include <string>

namespace Platform {

// Unpaired surrogates are written as they are (three bytes each).
std::string utf8(const std::u16string& units);
// A byte that starts no valid UTF-8 sequence stands for itself.
std::u16string utf16(const std::string& text);

} // namespace Platform
