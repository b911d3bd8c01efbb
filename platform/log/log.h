#pragma once
// Log channels and levels. A line is delivered when the global level is at most the line's level
// and its channel is switched on; it goes to the installed sink (the stdout printer by default).
// Levels: 1 detail, 2 outcome or notice, 3 warning, 4 error.

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Platform {

enum LogLevel : int { LogDetail = 1, LogNotice = 2, LogWarning = 3, LogError = 4 };

using LogChannel = std::uint32_t;

struct LogLine {
    std::string channel;
    int level;
    std::string text;
    bool operator==(const LogLine&) const = default;
};

class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void write(const LogLine& line) = 0;
};

class SysLogFilter {
public:
    // Registers a channel by name (switched on); registering a name again returns its channel.
    static LogChannel reg(std::string_view name);
    static int level() noexcept;
    static void setLevel(int level) noexcept;
    static bool state(LogChannel channel) noexcept;
    static void setState(LogChannel channel, bool on) noexcept;
    static std::string name(LogChannel channel);
};

class SysLogStream {
public:
    // Writes "<channel>: <text>" lines to stdout.
    static LogSink& stdOutPrinter();
    // Routes every delivered line to sink; null restores the stdout printer.
    static void install(std::shared_ptr<LogSink> sink);
    // Delivers the line if the filter lets it through.
    static void write(LogChannel channel, int level, std::string_view text);
};

// Prints "<channel>: <text>" to a C stream (the stdout printer is one over stdout).
class StreamPrinter : public LogSink {
public:
    explicit StreamPrinter(std::FILE* stream) : stream_(stream) {}
    void write(const LogLine& line) override;

private:
    std::FILE* stream_;
};

// Hands each line to a caller's function.
class CallbackSink : public LogSink {
public:
    explicit CallbackSink(std::function<void(const LogLine&)> callback) : callback_(std::move(callback)) {}
    void write(const LogLine& line) override { callback_(line); }

private:
    std::function<void(const LogLine&)> callback_;
};

// Keeps every line so that tests can assert the texts that are part of the interface.
class CaptureSink : public LogSink {
public:
    void write(const LogLine& line) override;
    std::vector<LogLine> lines() const;
    // The texts of the lines of one channel, in order.
    std::vector<std::string> texts(std::string_view channel) const;
    bool contains(std::string_view channel, int level, std::string_view text) const;
    void clear();

private:
    mutable std::mutex lock_;
    std::vector<LogLine> lines_;
};

// Installs a capture sink for its lifetime, with the level lowered to 1 so that all lines arrive.
class ScopedLogCapture {
public:
    ScopedLogCapture();
    ~ScopedLogCapture();
    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;
    CaptureSink& sink() { return *sink_; }

private:
    std::shared_ptr<CaptureSink> sink_;
    int savedLevel_;
};

// Builds one line with << and writes it when it goes out of scope:
//   LogMessage(channel, LogError) << "Invalid to partidx: " << index;
class LogMessage {
public:
    // A line the filter would drop is not even formatted.
    LogMessage(LogChannel channel, int level)
        : channel_(channel), level_(level), wanted_(level >= SysLogFilter::level() && SysLogFilter::state(channel))
    {
    }
    ~LogMessage()
    {
        if (wanted_)
            SysLogStream::write(channel_, level_, text_ ? text_->str() : std::string());
    }
    LogMessage(const LogMessage&) = delete;
    LogMessage& operator=(const LogMessage&) = delete;

    template <typename T>
    LogMessage& operator<<(const T& value)
    {
        if (!wanted_)
            return *this;
        if (!text_)
            text_.emplace();
        *text_ << value;
        return *this;
    }

private:
    LogChannel channel_;
    int level_;
    bool wanted_;
    std::optional<std::ostringstream> text_; // made only for a line that is written
};

} // namespace Platform
