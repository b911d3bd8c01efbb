#pragma once
// Line-by-line rewriting of text files, on a file system or in memory, that keeps every byte of
// the lines it does not change (line endings included).

#include "platform/fs/filesys.h"
#include "platform/log/log.h"
#include "postprocessing/types.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Libraries::KRO::PostProcessing::Tools {

// The line's new text (without its ending), or the text itself when it stays.
using LineRewrite = std::function<std::string(const std::string& text)>;

// What a rewrite says at its end: the copy back failed (level 4), nothing was found (level 1),
// a line failed so the file stays as it was (level 3).
struct RewriteWording {
    std::string copyBackFailed;
    std::string nothingFound;
    std::string notWriting;
};
enum class CopyBackFailure { Fails, KeepsResult };

// Rewrites file through a temporary file and copies it back only when a line changed and every
// line went through: Ok, Nothing found, or FAILED (the file then stays as it was). A failed
// copy back fails the rewrite unless the caller's contract keeps its result.
StepResult rewriteTextFile(const Ref<Platform::File>& file, const LineRewrite& rewrite, Platform::LogChannel channel,
                           const RewriteWording& wording, CopyBackFailure onCopyBackFailure = CopyBackFailure::Fails);

// The text with every line passed through rewrite; nothing when no line changed.
std::optional<std::string> rewriteText(std::string_view text, const LineRewrite& rewrite);

// The file at path, opened for reading and writing; null for a missing file (silently) and for
// any other failure (with a log line on channel).
Ref<Platform::File> openExistingFile(Platform::Filesys& fs, const std::string& path, Platform::LogChannel channel);

} // namespace Libraries::KRO::PostProcessing::Tools
