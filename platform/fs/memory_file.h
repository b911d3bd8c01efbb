#pragma once
// A file held in memory, for callers that have a file's bytes rather than a file system: hives
// handed over whole, fuzzing, benchmarks, and the files a dry run keeps from a host folder.
// Handles made from the same shared bytes see each other's writes, each at its own position.

#include "platform/fs/filesys.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

namespace Platform {

class MemoryFile final : public File {
public:
    using Bytes = std::vector<std::uint8_t>;

    explicit MemoryFile(Bytes bytes = {}) : bytes_(std::make_shared<Bytes>(std::move(bytes))) {}
    explicit MemoryFile(std::shared_ptr<Bytes> shared) : bytes_(std::move(shared)) {}

    std::uint64_t size() override { return bytes_->size(); }
    bool seek(std::uint64_t position) override
    {
        position_ = position;
        return true;
    }
    std::uint64_t read(void* buffer, std::uint64_t length) override
    {
        const std::uint64_t count =
            position_ >= bytes_->size() ? 0 : std::min<std::uint64_t>(length, bytes_->size() - position_);
        if (count)
            std::memcpy(buffer, bytes_->data() + position_, count);
        position_ += count;
        return count;
    }
    std::uint64_t write(const void* buffer, std::uint64_t length) override
    {
        if (bytes_->size() < position_ + length)
            bytes_->resize(position_ + length);
        if (length)
            std::memcpy(bytes_->data() + position_, buffer, length);
        position_ += length;
        written_ += length;
        return length;
    }
    std::uint64_t resize(std::uint64_t size) override
    {
        bytes_->resize(size);
        return size;
    }
    bool flush() override { return true; }

    const Bytes& bytes() const { return *bytes_; }
    // Bytes written through this handle since it was made: what a flush cost.
    std::uint64_t written() const { return written_; }

private:
    std::shared_ptr<Bytes> bytes_;
    std::uint64_t position_ = 0;
    std::uint64_t written_ = 0;
};

} // namespace Platform
