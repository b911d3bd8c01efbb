#pragma once
// hivexregedit, a hive reader we did not write, as the hive tests run it.

#include <string>

namespace TestSupport {

// `hivexregedit --export PATH KEY` without its two header lines. It prints Latin-1 names as raw
// bytes; those are turned into UTF-8 here, as our export writes every name.
std::string hivexExport(const std::string& path, const std::string& key = "\\");

} // namespace TestSupport
