#include "platform/log/log.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

TEST(Log, DeliversOnlyAtOrAboveTheLevelOnSwitchedOnChannels)
{
    const LogChannel channel = SysLogFilter::reg("Test Channel");
    EXPECT_EQ(SysLogFilter::reg("Test Channel"), channel);
    ScopedLogCapture capture;

    SysLogFilter::setLevel(3);
    LogMessage(channel, LogNotice) << "dropped";
    LogMessage(channel, LogWarning) << "kept " << 42;
    SysLogFilter::setState(channel, false);
    LogMessage(channel, LogError) << "channel off";
    SysLogFilter::setState(channel, true);

    const std::vector<LogLine> expected{{"Test Channel", LogWarning, "kept 42"}};
    EXPECT_EQ(capture.sink().lines(), expected);
}

TEST(Log, CallerSinkReceivesLinesUntilRemoved)
{
    const LogChannel channel = SysLogFilter::reg("Test Channel");
    std::vector<std::string> seen;
    SysLogStream::install(std::make_shared<CallbackSink>([&](const LogLine& line) { seen.push_back(line.text); }));
    SysLogStream::write(channel, LogError, "to the caller");
    SysLogStream::install(nullptr);
    testing::internal::CaptureStdout();
    SysLogStream::write(channel, LogError, "to stdout");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Test Channel: to stdout\n");
    EXPECT_EQ(seen, std::vector<std::string>{"to the caller"});
}

} // namespace
} // namespace Platform
