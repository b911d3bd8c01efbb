#include "cli/terminal.h"

#include <cstdio>
#include <string>
#include <unistd.h>

namespace Cli {

namespace {

bool barShown = false;
constexpr int kBarWidth = 30;

void clearBar()
{
    if (barShown)
        std::fputs("\r\033[K", stderr);
    barShown = false;
}

} // namespace

void StderrLog::write(const Platform::LogLine& line)
{
    clearBar();
    std::fprintf(stderr, "%s: %s\n", line.channel.c_str(), line.text.c_str());
}

void ProgressBar::progress(double fraction)
{
    const int filled = int(fraction * kBarWidth + 0.5);
    std::string bar(std::size_t(filled), '#');
    bar.append(std::size_t(kBarWidth - filled), '.');
    std::fprintf(stderr, "\r[%s] %3d%%", bar.c_str(), int(fraction * 100 + 0.5));
    std::fflush(stderr);
    barShown = true;
}

void ProgressBar::completed()
{
    progress(1.0);
    std::fputc('\n', stderr);
    barShown = false;
}

Platform::Ref<Interfaces::ProgressNotifier> progressForTerminal()
{
    if (!::isatty(STDERR_FILENO))
        return {};
    return Platform::makeRef<ProgressBar>();
}

} // namespace Cli
