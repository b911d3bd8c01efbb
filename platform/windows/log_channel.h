#pragma once
// The channel the Windows pieces log on. The post-processing library logs its Windows steps on a
// channel of the same name, so that a caller sees one Windows channel whichever layer speaks.

#include "platform/log/log.h"

namespace Platform::Windows {

inline LogChannel channel()
{
    static const LogChannel registered = SysLogFilter::reg("PP Win");
    return registered;
}

} // namespace Platform::Windows
