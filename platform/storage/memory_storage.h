#pragma once
// A storage in memory, for tests and for staging.

#include "platform/storage/storage.h"

#include <cstring>
#include <vector>

namespace Platform {

class MemoryStorage : public Object, public virtual Interfaces::Storage {
public:
    MemoryStorage(std::uint32_t elementSize, std::uint64_t elementCount)
        : elementSize_(elementSize), bytes_(std::size_t(elementSize * elementCount), 0)
    {
    }

    std::uint32_t elementSize() const override { return elementSize_; }
    std::uint64_t elementCount() const override { return bytes_.size() / elementSize_; }
    std::uint64_t read(std::uint64_t index, std::uint64_t count, void* buffer) override
    {
        count = clamp(index, count);
        if (count)
            std::memcpy(buffer, bytes_.data() + index * elementSize_, count * elementSize_);
        return count;
    }
    std::uint64_t write(std::uint64_t index, std::uint64_t count, const void* buffer) override
    {
        count = clamp(index, count);
        if (count)
            std::memcpy(bytes_.data() + index * elementSize_, buffer, count * elementSize_);
        return count;
    }
    bool flush() override { return true; }

    std::vector<std::uint8_t>& bytes() { return bytes_; }

private:
    std::uint64_t clamp(std::uint64_t index, std::uint64_t count) const
    {
        return index >= elementCount() ? 0 : std::min(count, elementCount() - index);
    }

    std::uint32_t elementSize_;
    std::vector<std::uint8_t> bytes_;
};

} // namespace Platform
