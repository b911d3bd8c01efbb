#include "postprocessing/tools/text_rewrite.h"

#include "platform/core/error.h"
#include "platform/fs/line_io.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/file_tools.h"

namespace Libraries::KRO::PostProcessing::Tools {

StepResult rewriteTextFile(const Ref<Platform::File>& file, const LineRewrite& rewrite, Platform::LogChannel channel,
                           const RewriteWording& wording, CopyBackFailure onCopyBackFailure)
{
    const auto temporary = createTempFile();
    if (!temporary)
        return StepResult::Failed;
    Platform::LineReader reader(file);
    Platform::LineWriter writer(temporary);
    StepResult result = StepResult::NothingFound;
    while (auto line = reader.next()) {
        std::string changed = rewrite(line->text);
        if (changed != line->text) {
            LogMessage(channel, LogNotice) << "Replacing line " << line->text << " with " << changed;
            line->text = std::move(changed);
            result = StepResult::Ok;
        }
        if (!writer.write(*line)) {
            LogMessage(channel, LogError) << "Failed to write line";
            result = StepResult::Failed;
            break;
        }
    }
    if (result != StepResult::Failed && (reader.failed() || !writer.finish())) {
        LogMessage(channel, LogError) << "Failed to write line";
        result = StepResult::Failed;
    }
    if (result == StepResult::Ok) {
        if (!copyFile(temporary, file) || !file->flush()) {
            LogMessage(channel, LogError) << wording.copyBackFailed;
            if (onCopyBackFailure == CopyBackFailure::Fails)
                result = StepResult::Failed;
        }
    } else if (result == StepResult::NothingFound) {
        LogMessage(channel, LogDetail) << wording.nothingFound;
    } else {
        LogMessage(channel, LogWarning) << wording.notWriting;
    }
    return result;
}

std::optional<std::string> rewriteText(std::string_view text, const LineRewrite& rewrite)
{
    std::string result;
    result.reserve(text.size() + 64);
    bool changed = false;
    for (std::size_t start = 0; start < text.size();) {
        const auto newline = text.find('\n', start);
        const std::size_t end = newline == std::string_view::npos ? text.size() : newline;
        const std::string line(text.substr(start, end - start));
        std::string rewritten = rewrite(line);
        changed |= rewritten != line;
        result += rewritten;
        if (newline != std::string_view::npos)
            result += '\n';
        start = end + 1;
    }
    return changed ? std::optional(std::move(result)) : std::nullopt;
}

Ref<Platform::File> openExistingFile(Platform::Filesys& fs, const std::string& path, Platform::LogChannel channel)
{
    Platform::Error::set(Platform::Error::None);
    auto file = fs.openFile(path, Platform::OpenFlags::ReadWriteExisting);
    if (!file && Platform::Error::get() != Platform::Error::PathNotFound)
        LogMessage(channel, LogError) << "Could not open " << path << ": " << Platform::Error::get();
    return file;
}

} // namespace Libraries::KRO::PostProcessing::Tools
