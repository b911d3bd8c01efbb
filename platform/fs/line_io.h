#pragma once
// Line-by-line reading and writing of text files through the file facade. Each line keeps its
// own ending ("\n", "\r\n" or none for a last line without one), so that a rewritten file keeps
// the line structure of the file it replaces, byte for byte where a line is unchanged.

#include "platform/fs/filesys.h"

#include <optional>
#include <string>
#include <vector>

namespace Platform {

struct TextLine {
    std::string text;
    std::string ending;
};

class LineReader {
public:
    explicit LineReader(Ref<File> file) : file_(std::move(file)) { file_->seek(0); }
    // The next line, or nothing at the end (or on a read error, which failed() then reports).
    std::optional<TextLine> next();
    bool failed() const { return failed_; }

private:
    bool fill();

    Ref<File> file_;
    std::vector<char> buffer_;
    std::size_t start_ = 0;
    bool end_ = false;
    bool failed_ = false;
};

class LineWriter {
public:
    explicit LineWriter(Ref<File> file) : file_(std::move(file)) { file_->seek(0); }
    bool write(const TextLine& line);
    // Writes what is buffered and cuts the file to what was written.
    bool finish();

private:
    bool drain();

    Ref<File> file_;
    std::string buffer_;
    std::uint64_t written_ = 0;
};

} // namespace Platform
