#include "platform/fs/line_io.h"

#include "platform/core/error.h"

#include <algorithm>

namespace Platform {

namespace {
constexpr std::size_t kChunk = 1 << 16;
} // namespace

bool LineReader::fill()
{
    if (end_)
        return false;
    buffer_.erase(buffer_.begin(), buffer_.begin() + std::ptrdiff_t(start_));
    start_ = 0;
    const std::size_t old = buffer_.size();
    buffer_.resize(old + kChunk);
    Error::set(Error::None);
    const std::uint64_t got = file_->read(buffer_.data() + old, kChunk);
    buffer_.resize(old + got);
    // A short read is the end of the file, unless the file system said why it stopped early.
    if (got < kChunk && Error::get() != Error::None)
        failed_ = end_ = true;
    if (got == 0)
        end_ = true;
    return got > 0 && !failed_;
}

std::optional<TextLine> LineReader::next()
{
    for (std::size_t searched = start_;;) {
        const auto begin = buffer_.begin() + std::ptrdiff_t(searched);
        const auto newline = std::find(begin, buffer_.end(), '\n');
        if (newline != buffer_.end()) {
            const std::size_t at = std::size_t(newline - buffer_.begin());
            const bool crlf = at > start_ && buffer_[at - 1] == '\r';
            TextLine line{std::string(buffer_.begin() + std::ptrdiff_t(start_),
                                      buffer_.begin() + std::ptrdiff_t(crlf ? at - 1 : at)),
                          crlf ? "\r\n" : "\n"};
            start_ = at + 1;
            return line;
        }
        searched = buffer_.size();
        const std::size_t before = start_;
        if (!fill()) {
            if (start_ >= buffer_.size())
                return std::nullopt;
            TextLine last{std::string(buffer_.begin() + std::ptrdiff_t(start_), buffer_.end()), ""};
            start_ = buffer_.size();
            return last;
        }
        searched -= before; // fill() moved the unread part to the front
    }
}

bool LineWriter::drain()
{
    if (buffer_.empty())
        return true;
    const bool ok = file_->write(buffer_.data(), buffer_.size()) == buffer_.size();
    written_ += buffer_.size();
    buffer_.clear();
    return ok;
}

bool LineWriter::write(const TextLine& line)
{
    buffer_ += line.text;
    buffer_ += line.ending;
    return buffer_.size() < kChunk || drain();
}

bool LineWriter::finish()
{
    return drain() && file_->resize(written_) == written_ && file_->flush();
}

} // namespace Platform
