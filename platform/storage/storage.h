#pragma once
// A storage: a run of equally sized elements (sectors) read and written whole.

#include "platform/core/ref.h"

#include <cstdint>
#include <string>

namespace Interfaces {

class Storage : public virtual Platform::RefCount {
public:
    // Bytes per element (the logical sector size).
    virtual std::uint32_t elementSize() const = 0;
    virtual std::uint64_t elementCount() const = 0;
    // Reads count elements from index into buffer (count * elementSize bytes); returns how many
    // were read, fewer at the end of the storage or on an error.
    virtual std::uint64_t read(std::uint64_t index, std::uint64_t count, void* buffer) = 0;
    // Writes count elements at index; returns how many were written.
    virtual std::uint64_t write(std::uint64_t index, std::uint64_t count, const void* buffer) = 0;
    virtual bool flush() = 0;
    // The partition table on this storage was rewritten. A block device has its kernel read it
    // again; the text says what could not be done (empty when all went well or nothing applies).
    virtual std::string partitionTableChanged() { return {}; }
};

} // namespace Interfaces
