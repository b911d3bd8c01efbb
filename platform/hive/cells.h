#pragma once
// The hive bins of a hive in memory. Every bin header and cell size is checked once at load;
// afterwards a cell is reached by its offset only where an allocated cell starts, so a record
// that points elsewhere is reported, never followed. Cells are allocated first fit from the free
// ones (a new hive bin only when none is large enough) and coalesced with free neighbours when
// released; every 4 KiB page that changes is remembered for the flush.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
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

    // The data of the allocated cell at offset, to change; its pages count as changed. Empty
    // (Error Corrupt) when no allocated cell starts there.
    std::span<std::uint8_t> writable(std::uint32_t offset);
    // A new allocated cell of at least size data bytes, zeroed; nothing (Error NoSpace) when the
    // hive would outgrow what its offsets can address.
    std::optional<std::uint32_t> allocate(std::size_t size);
    // Frees the allocated cell at offset; the next and previous free cells of its bin merge with it.
    void release(std::uint32_t offset);

    // Bins offsets of the 4 KiB pages changed since load, ascending.
    const std::set<std::uint32_t>& changedPages() const { return changed_; }
    void markChanged(std::size_t offset, std::size_t length);
    void forgetChanges() { changed_.clear(); }

private:
    explicit Cells(std::vector<std::uint8_t> bins) : bins_(std::move(bins)), allocated_(bins_.size() / 8, false) {}
    bool checkBin(std::size_t offset, std::size_t& size);
    void appendBin(std::size_t cellSize);
    bool sameBin(std::uint32_t a, std::uint32_t b) const;
    void setSize(std::uint32_t offset, std::int32_t size);

    std::vector<std::uint8_t> bins_;
    std::vector<bool> allocated_;                 // one flag per 8 bytes: an allocated cell starts there
    std::map<std::uint32_t, std::uint32_t> free_; // free cells: offset to whole size
    std::map<std::uint32_t, std::uint32_t> binStarts_;
    std::set<std::uint32_t> changed_;
};

} // namespace Platform::Hive
