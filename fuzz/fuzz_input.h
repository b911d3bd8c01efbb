#pragma once
// Turns a fuzzer's bytes into the inputs the parsers read: a disk of 512-byte sectors (the bytes
// at its start, zeros after, so that structures found at fixed offsets deeper in are reachable
// by repeating patterns) and lines of text.

#include "platform/log/log.h"
#include "platform/storage/memory_storage.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace Fuzz {

// A disk of at least minimumSectors holding data at its start.
inline Platform::Ref<Platform::MemoryStorage> diskOf(const std::uint8_t* data, std::size_t size,
                                                     std::uint64_t minimumSectors = 128)
{
    const std::uint64_t sectors = std::max<std::uint64_t>(minimumSectors, (size + 511) / 512);
    auto disk = Platform::makeRef<Platform::MemoryStorage>(512u, sectors);
    if (size)
        std::memcpy(disk->bytes().data(), data, size);
    return disk;
}

inline std::vector<std::string> linesOf(const std::uint8_t* data, std::size_t size)
{
    std::vector<std::string> lines(1);
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == '\n')
            lines.emplace_back();
        else
            lines.back() += char(data[i]);
    }
    return lines;
}

// Log lines are formatted but go nowhere: the fuzzer's output stays readable.
inline void quietLogs()
{
    static const bool done = [] {
        Platform::SysLogStream::install(std::make_shared<Platform::CallbackSink>([](const Platform::LogLine&) {}));
        return true;
    }();
    (void)done;
}

} // namespace Fuzz
