#include "postprocessing/log_channels.h"

namespace Libraries::KRO::PostProcessing::Channels {

Platform::LogChannel bootloader()
{
    static const auto channel = Platform::SysLogFilter::reg("PP Bootloader");
    return channel;
}

Platform::LogChannel common()
{
    static const auto channel = Platform::SysLogFilter::reg("PP Common");
    return channel;
}

Platform::LogChannel handler()
{
    static const auto channel = Platform::SysLogFilter::reg("PP Handler");
    return channel;
}

Platform::LogChannel linuxSys()
{
    static const auto channel = Platform::SysLogFilter::reg("PP Linux");
    return channel;
}

Platform::LogChannel tools()
{
    static const auto channel = Platform::SysLogFilter::reg("PP Tools");
    return channel;
}

Platform::LogChannel windows()
{
    static const auto channel = Platform::SysLogFilter::reg("PP Win");
    return channel;
}

namespace {
// Registers all six on load, in a fixed order, so that a caller can switch them before a call.
const bool registered = [] {
    bootloader(), common(), handler(), linuxSys(), tools(), windows();
    return true;
}();
} // namespace

} // namespace Libraries::KRO::PostProcessing::Channels
