#pragma once
// Changed sectors that do not fit in memory: an unlinked file in the temporary folder (TMPDIR, else
// /tmp), in equal slots, each holding up to two byte ranges (a chunk's new and old content).

#include <cstdint>
#include <span>
#include <vector>

namespace Platform {

class SpillFile {
public:
    explicit SpillFile(std::size_t slotBytes);
    ~SpillFile();
    SpillFile(const SpillFile&) = delete;
    SpillFile& operator=(const SpillFile&) = delete;

    // The slot the bytes went to; -1 when they could not be written (no temporary folder, no space).
    std::int64_t store(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second = {});
    // Reads a slot back and frees it.
    bool load(std::int64_t slot, std::span<std::uint8_t> first, std::span<std::uint8_t> second = {});
    // Reads a slot back and keeps it.
    bool peek(std::int64_t slot, std::span<std::uint8_t> first, std::span<std::uint8_t> second = {}) const;
    void release(std::int64_t slot) { free_.push_back(slot); }

private:
    int fd_ = -1;
    std::size_t slotBytes_;
    std::int64_t next_ = 0;
    std::vector<std::int64_t> free_;
};

} // namespace Platform
