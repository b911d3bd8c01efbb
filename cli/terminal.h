#pragma once
// What postclone writes to stderr: log lines, and a progress bar when stderr is a terminal.

#include "platform/core/progress_notifier.h"
#include "platform/log/log.h"

namespace Cli {

// Prints log lines to stderr, clearing a progress bar that stands on the current line first.
class StderrLog : public Platform::LogSink {
public:
    void write(const Platform::LogLine& line) override;
};

class ProgressBar : public Platform::Object, public virtual Interfaces::ProgressNotifier {
public:
    void progress(double fraction) override;
    void completed() override;
};

// The bar when stderr is a terminal, else null (no progress output at all).
Platform::Ref<Interfaces::ProgressNotifier> progressForTerminal();

} // namespace Cli
