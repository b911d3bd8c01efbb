#pragma once
// A receiver of progress reports from a long-running operation.

#include "platform/core/ref.h"

namespace Interfaces {

class ProgressNotifier : public virtual Platform::RefCount {
public:
    // fraction: the share done, from 0 to 1.
    virtual void progress(double fraction) = 0;
    // The operation is complete; by default a last progress report of 1.
    virtual void completed() { progress(1.0); }
    // Asked between the parts of the operation: true stops it there, never inside a part.
    virtual bool cancelled() { return false; }
};

} // namespace Interfaces
