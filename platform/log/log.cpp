#include "platform/log/log.h"

#include <algorithm>
#include <atomic>

namespace Platform {

namespace {

struct Channel {
    std::string name;
    bool on = true;
};

struct Registry {
    std::mutex lock;
    std::vector<Channel> channels;
    std::shared_ptr<LogSink> sink;
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

std::atomic<int> globalLevel{LogDetail};

} // namespace

LogChannel SysLogFilter::reg(std::string_view name)
{
    auto& r = registry();
    std::lock_guard guard(r.lock);
    for (std::size_t i = 0; i < r.channels.size(); ++i)
        if (r.channels[i].name == name)
            return LogChannel(i);
    r.channels.push_back({std::string(name), true});
    return LogChannel(r.channels.size() - 1);
}

int SysLogFilter::level() noexcept
{
    return globalLevel.load();
}

void SysLogFilter::setLevel(int level) noexcept
{
    globalLevel.store(level);
}

bool SysLogFilter::state(LogChannel channel) noexcept
{
    auto& r = registry();
    std::lock_guard guard(r.lock);
    return channel < r.channels.size() && r.channels[channel].on;
}

void SysLogFilter::setState(LogChannel channel, bool on) noexcept
{
    auto& r = registry();
    std::lock_guard guard(r.lock);
    if (channel < r.channels.size())
        r.channels[channel].on = on;
}

std::string SysLogFilter::name(LogChannel channel)
{
    auto& r = registry();
    std::lock_guard guard(r.lock);
    return channel < r.channels.size() ? r.channels[channel].name : std::string();
}

LogSink& SysLogStream::stdOutPrinter()
{
    static StreamPrinter printer(stdout);
    return printer;
}

void SysLogStream::install(std::shared_ptr<LogSink> sink)
{
    auto& r = registry();
    std::lock_guard guard(r.lock);
    r.sink = std::move(sink);
}

void SysLogStream::write(LogChannel channel, int level, std::string_view text)
{
    if (level < SysLogFilter::level() || !SysLogFilter::state(channel))
        return;
    const LogLine line{SysLogFilter::name(channel), level, std::string(text)};
    std::shared_ptr<LogSink> sink;
    {
        auto& r = registry();
        std::lock_guard guard(r.lock);
        sink = r.sink;
    }
    if (sink)
        sink->write(line);
    else
        stdOutPrinter().write(line);
}

void StreamPrinter::write(const LogLine& line)
{
    std::fprintf(stream_, "%s: %s\n", line.channel.c_str(), line.text.c_str());
    std::fflush(stream_);
}

void CaptureSink::write(const LogLine& line)
{
    std::lock_guard guard(lock_);
    lines_.push_back(line);
}

std::vector<LogLine> CaptureSink::lines() const
{
    std::lock_guard guard(lock_);
    return lines_;
}

std::vector<std::string> CaptureSink::texts(std::string_view channel) const
{
    std::lock_guard guard(lock_);
    std::vector<std::string> texts;
    for (const auto& line : lines_)
        if (line.channel == channel)
            texts.push_back(line.text);
    return texts;
}

bool CaptureSink::contains(std::string_view channel, int level, std::string_view text) const
{
    std::lock_guard guard(lock_);
    return std::any_of(lines_.begin(), lines_.end(), [&](const LogLine& line) {
        return line.channel == channel && line.level == level && line.text == text;
    });
}

void CaptureSink::clear()
{
    std::lock_guard guard(lock_);
    lines_.clear();
}

ScopedLogCapture::ScopedLogCapture() : sink_(std::make_shared<CaptureSink>()), savedLevel_(SysLogFilter::level())
{
    SysLogFilter::setLevel(LogDetail);
    SysLogStream::install(sink_);
}

ScopedLogCapture::~ScopedLogCapture()
{
    SysLogStream::install(nullptr);
    SysLogFilter::setLevel(savedLevel_);
}

} // namespace Platform
