#pragma once
// The hive bins of a hive in memory. Every bin header and cell size is checked once at load;
// afterwards a cell is reached by its offset only where an allocated cell starts, so a record
// that points elsewhere is reported, never followed.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace Platform::Hive {

class Cells {
public:
    // bins: the hive bins data (from file offset 4096). Nothing, with Error Corrupt naming the
    // place, when a bin or a cell is damaged.
    static std::optional<Cells> load(std::vector<std::uint8_t> bins);

    // The data of the allocated cell at offset (after its size field); nothing (Error Corrupt)
    // when no allocated cell starts there.
    std::optional<std::span<const std::uint8_t>> cell(std::uint32_t offset) const;
    // The same, with at least minimum bytes and the two-letter signature of its record.
    std::optional<std::span<const std::uint8_t>> record(std::uint32_t offset, const char (&signature)[3],
                                                        std::size_t minimum) const;
    const std::vector<std::uint8_t>& bytes() const { return bins_; }

private:
    explicit Cells(std::vector<std::uint8_t> bins) : bins_(std::move(bins)), allocated_(bins_.size() / 8, false) {}
    bool checkBin(std::size_t offset, std::size_t& size);

    std::vector<std::uint8_t> bins_;
    std::vector<bool> allocated_; // one flag per 8 bytes: an allocated cell starts there
};

} // namespace Platform::Hive
