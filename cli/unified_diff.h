#pragma once
// The unified diff of two texts (as `diff -u` prints it, three lines of context), for the
// dry run's report of the text files a run would change.

#include <string>

namespace Cli {

// Empty when the texts are equal. name: the path shown on the --- and +++ lines.
std::string unifiedDiff(const std::string& before, const std::string& after, const std::string& name);

} // namespace Cli
