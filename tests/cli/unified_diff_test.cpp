// The dry run's diffs against diff -u, the tool users read them with: the same hunks, context and
// line numbers, for changes alone, together, apart, at the ends and without a final newline.

#include "cli/unified_diff.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

std::string lines(int first, int last, const std::string& prefix = "line ")
{
    std::string text;
    for (int i = first; i <= last; ++i)
        text += prefix + std::to_string(i) + "\n";
    return text;
}

// diff -u's hunks, with our own header lines.
std::string referenceDiff(const std::string& before, const std::string& after, const std::string& name)
{
    TestSupport::TempDir dir;
    std::ofstream(dir.file("a"), std::ios::binary) << before;
    std::ofstream(dir.file("b"), std::ios::binary) << after;
    const auto result = TestSupport::run({"diff", "-u", dir.file("a"), dir.file("b")});
    if (result.exitCode == 0)
        return {};
    const auto hunks = result.out.find("\n@@");
    return "--- " + name + "\n+++ " + name + result.out.substr(hunks);
}

TEST(UnifiedDiff, MatchesDiffU)
{
    const std::string base = lines(1, 30);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {base, base},
        {base, lines(1, 14) + "changed 15\n" + lines(16, 30)},
        {base, lines(1, 9) + "a\n" + lines(11, 14) + "b\n" + lines(16, 30)},     // close: one hunk
        {base, lines(1, 4) + "a\n" + lines(6, 24) + "b\n" + lines(26, 30)},      // far apart: two
        {base, "new first\n" + base + "new last\n"},                             // at both ends
        {base, lines(1, 10) + lines(20, 30)},                                    // lines removed
        {base, lines(1, 29) + "line 30"},                                        // final newline lost
        {"", "only line\n"},
        {lines(1, 3, "UUID=old-"), lines(1, 3, "UUID=new-")},
    };
    for (const auto& [before, after] : cases)
        EXPECT_EQ(Cli::unifiedDiff(before, after, "/etc/fstab"), referenceDiff(before, after, "/etc/fstab"))
            << "after:\n"
            << after;
}

} // namespace
