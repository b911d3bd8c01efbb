#include "cli/unified_diff.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace Cli {

namespace {

constexpr std::size_t kContext = 3;
// Beyond this many cells the changed middle is shown as removed and added whole.
constexpr std::size_t kMaxTableCells = std::size_t(1) << 24;

// Lines with their endings, so that a missing final newline is seen.
std::vector<std::string_view> linesOf(std::string_view text)
{
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const auto length = end == std::string_view::npos ? text.size() : end + 1;
        lines.push_back(text.substr(0, length));
        text.remove_prefix(length);
    }
    return lines;
}

enum class Op : char { Same = ' ', Removed = '-', Added = '+' };
struct Edit {
    Op op;
    std::size_t line; // in the old text for Same and Removed, in the new for Added
};

// The shortest edit of a[first..] into b[first..] by longest common subsequence: changes are
// sparse here (a few lines naming ids), so the ends in common are taken off before the table.
std::vector<Edit> editScript(const std::vector<std::string_view>& a, const std::vector<std::string_view>& b)
{
    std::size_t head = 0;
    while (head < a.size() && head < b.size() && a[head] == b[head])
        ++head;
    std::size_t tail = 0;
    while (tail < a.size() - head && tail < b.size() - head && a[a.size() - 1 - tail] == b[b.size() - 1 - tail])
        ++tail;
    const std::size_t n = a.size() - head - tail, m = b.size() - head - tail;

    std::vector<Edit> edits;
    for (std::size_t i = 0; i < head; ++i)
        edits.push_back({Op::Same, i});
    if ((n + 1) * (m + 1) > kMaxTableCells) {
        for (std::size_t i = 0; i < n; ++i)
            edits.push_back({Op::Removed, head + i});
        for (std::size_t j = 0; j < m; ++j)
            edits.push_back({Op::Added, head + j});
    } else {
        // common[i][j]: the longest common subsequence of the middles from i and j on.
        std::vector<std::uint32_t> common((n + 1) * (m + 1), 0);
        const auto at = [&](std::size_t i, std::size_t j) -> std::uint32_t& { return common[i * (m + 1) + j]; };
        for (std::size_t i = n; i-- > 0;)
            for (std::size_t j = m; j-- > 0;)
                at(i, j) = a[head + i] == b[head + j] ? at(i + 1, j + 1) + 1 : std::max(at(i + 1, j), at(i, j + 1));
        std::size_t i = 0, j = 0;
        while (i < n || j < m) {
            if (i < n && j < m && a[head + i] == b[head + j]) {
                edits.push_back({Op::Same, head + i});
                ++i, ++j;
            } else if (i < n && (j == m || at(i + 1, j) >= at(i, j + 1))) {
                edits.push_back({Op::Removed, head + i++}); // as diff -u: what goes before what comes
            } else {
                edits.push_back({Op::Added, head + j++});
            }
        }
    }
    for (std::size_t i = a.size() - tail; i < a.size(); ++i)
        edits.push_back({Op::Same, i});
    return edits;
}

std::string range(std::size_t start, std::size_t count)
{
    // diff -u: an empty side is shown at the line before it.
    const std::size_t shown = count == 0 ? start : start + 1;
    std::string text = std::to_string(shown);
    if (count != 1) {
        text += ',';
        text += std::to_string(count);
    }
    return text;
}

} // namespace

std::string unifiedDiff(const std::string& before, const std::string& after, const std::string& name)
{
    const auto a = linesOf(before), b = linesOf(after);
    const auto edits = editScript(a, b);
    std::string diff;
    std::size_t next = 0;
    while (next < edits.size()) {
        const auto change = std::find_if(edits.begin() + std::ptrdiff_t(next), edits.end(),
                                         [](const Edit& e) { return e.op != Op::Same; });
        if (change == edits.end())
            break;
        // A hunk: the change with its context, joined with the next change while their contexts meet.
        const std::size_t changeAt = std::size_t(change - edits.begin());
        const std::size_t first = changeAt - std::min(kContext, changeAt - next);
        std::size_t last = changeAt;
        for (std::size_t sameRun = 0, k = last; k < edits.size() && sameRun <= 2 * kContext; ++k) {
            sameRun = edits[k].op == Op::Same ? sameRun + 1 : 0;
            if (edits[k].op != Op::Same)
                last = k;
        }
        const std::size_t end = std::min(edits.size(), last + 1 + kContext);
        std::size_t oldStart = 0, newStart = 0, oldCount = 0, newCount = 0;
        // Where the hunk starts on each side: the lines before it, counted from the script.
        for (std::size_t k = 0; k < first; ++k) {
            oldStart += edits[k].op != Op::Added;
            newStart += edits[k].op != Op::Removed;
        }
        std::string body;
        for (std::size_t k = first; k < end; ++k) {
            const Edit& edit = edits[k];
            const std::string_view line = edit.op == Op::Added ? b[edit.line] : a[edit.line];
            oldCount += edit.op != Op::Added;
            newCount += edit.op != Op::Removed;
            body += char(edit.op);
            body += line;
            if (line.empty() || line.back() != '\n')
                body += "\n\\ No newline at end of file\n";
        }
        diff += "@@ -" + range(oldStart, oldCount) + " +" + range(newStart, newCount) + " @@\n" + body;
        next = end;
    }
    return diff.empty() ? diff : "--- " + name + "\n+++ " + name + "\n" + diff;
}

} // namespace Cli
