#pragma once
// The library's six log channels, registered when the library loads.

#include "platform/log/log.h"

namespace Libraries::KRO::PostProcessing::Channels {

Platform::LogChannel bootloader();
Platform::LogChannel common();
Platform::LogChannel handler();
Platform::LogChannel linuxSys();
Platform::LogChannel tools();
Platform::LogChannel windows();

} // namespace Libraries::KRO::PostProcessing::Channels

namespace Libraries::KRO::PostProcessing {
using Platform::LogDetail;
using Platform::LogError;
using Platform::LogMessage;
using Platform::LogNotice;
using Platform::LogWarning;
} // namespace Libraries::KRO::PostProcessing
