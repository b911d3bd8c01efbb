#pragma once
// A file held in memory, for callers that have a file's bytes rather than a file system: hives
// handed over whole, fuzzing, benchmarks.

#include "platform/fs/filesys.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace Platform {

class MemoryFile final : public File {
public:
    explicit MemoryFile(std::vector<std::uint8_t> bytes = {}) : bytes_(std::move(bytes)) {}

    std::uint64_t size() override { return bytes_.size(); }
    bool seek(std::uint64_t position) override
    {
        position_ = position;
        return true;
    }
    std::uint64_t read(void* buffer, std::uint64_t length) override
    {
        const std::uint64_t count =
            position_ >= bytes_.size() ? 0 : std::min<std::uint64_t>(length, bytes_.size() - position_);
        if (count)
            std::memcpy(buffer, bytes_.data() + position_, count);
        position_ += count;
        return count;
    }
    std::uint64_t write(const void* buffer, std::uint64_t length) override
    {
        if (bytes_.size() < position_ + length)
            bytes_.resize(position_ + length);
        if (length)
            std::memcpy(bytes_.data() + position_, buffer, length);
        position_ += length;
        written_ += length;
        return length;
    }
    std::uint64_t resize(std::uint64_t size) override
    {
        bytes_.resize(size);
        return size;
    }
    bool flush() override { return true; }

    const std::vector<std::uint8_t>& bytes() const { return bytes_; }
    // Bytes written since the file was made: what a flush cost.
    std::uint64_t written() const { return written_; }

private:
    std::vector<std::uint8_t> bytes_;
    std::uint64_t position_ = 0;
    std::uint64_t written_ = 0;
};

} // namespace Platform
