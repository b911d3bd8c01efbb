#include "platform/hive/cells.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/hive/layout.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

namespace Platform::Hive {

namespace {

std::string hex(std::size_t value)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    do {
        text.insert(text.begin(), digits[value & 0xF]);
        value >>= 4;
    } while (value);
    return "0x" + text;
}

bool damaged(const std::string& what)
{
    Error::set(Error::Corrupt, what);
    return false;
}

} // namespace

std::optional<Cells> Cells::load(std::vector<std::uint8_t> bins)
{
    Cells cells(std::move(bins));
    for (std::size_t offset = 0, size = 0; offset < cells.bins_.size(); offset += size)
        if (!cells.checkBin(offset, size))
            return std::nullopt;
    return cells;
}

// One bin: its header, then cells that fill it exactly.
bool Cells::checkBin(std::size_t offset, std::size_t& size)
{
    namespace B = Layout::Bin;
    ByteView view(bins_);
    if (offset + B::kHeaderSize > bins_.size() || std::memcmp(bins_.data() + offset, B::kSignature, 4) != 0)
        return damaged("no hive bin starts at " + hex(offset));
    size = view.u32(offset + B::kSize);
    binStarts_[std::uint32_t(offset)] = std::uint32_t(size);
    if (view.u32(offset + B::kOffset) != offset)
        return damaged("the hive bin at " + hex(offset) + " says it lies at " + hex(view.u32(offset + B::kOffset)));
    if (size < Layout::kPageSize || size % Layout::kPageSize != 0 || size > bins_.size() - offset)
        return damaged("the hive bin at " + hex(offset) + " has the impossible size " + hex(size));
    const std::size_t end = offset + size;
    for (std::size_t cell = offset + B::kHeaderSize; cell < end;) {
        if (end - cell < Layout::Cell::kHeaderSize)
            return damaged("the cells of the hive bin at " + hex(offset) + " do not fill it");
        const auto raw = std::int32_t(view.u32(cell));
        const std::size_t length = raw < 0 ? std::size_t(-std::int64_t(raw)) : std::size_t(raw);
        if (length < Layout::Cell::kAlignment || length % Layout::Cell::kAlignment != 0 || length > end - cell)
            return damaged("the cell at " + hex(cell) + " has the impossible size " + std::to_string(raw));
        if (raw < 0)
            allocated_[cell / Layout::Cell::kAlignment] = true;
        else
            free_[std::uint32_t(cell)] = std::uint32_t(length);
        cell += length;
    }
    return view.ok();
}

std::optional<std::span<const std::uint8_t>> Cells::cell(std::uint32_t offset) const
{
    if (offset % Layout::Cell::kAlignment != 0 || offset / Layout::Cell::kAlignment >= allocated_.size() ||
        !allocated_[offset / Layout::Cell::kAlignment]) {
        damaged("a record points at " + hex(offset) + ", where no allocated cell starts");
        return std::nullopt;
    }
    const std::size_t length = std::size_t(-std::int64_t(std::int32_t(ByteView(bins_).u32(offset))));
    return std::span(bins_).subspan(offset + Layout::Cell::kHeaderSize, length - Layout::Cell::kHeaderSize);
}

std::optional<std::span<const std::uint8_t>> Cells::record(std::uint32_t offset, const char (&signature)[3],
                                                           std::size_t minimum) const
{
    const auto data = cell(offset);
    if (!data)
        return std::nullopt;
    if (data->size() < std::max<std::size_t>(minimum, 2) || std::memcmp(data->data(), signature, 2) != 0) {
        damaged("the cell at " + hex(offset) + " is no \"" + signature + "\" record");
        return std::nullopt;
    }
    return data;
}

std::span<std::uint8_t> Cells::writable(std::uint32_t offset)
{
    const auto data = cell(offset);
    if (!data)
        return {};
    markChanged(offset, data->size() + Layout::Cell::kHeaderSize);
    return std::span(bins_).subspan(offset + Layout::Cell::kHeaderSize, data->size());
}

void Cells::markChanged(std::size_t offset, std::size_t length)
{
    for (std::size_t page = offset / Layout::kPageSize; page * Layout::kPageSize < offset + length; ++page)
        changed_.insert(std::uint32_t(page * Layout::kPageSize));
}

void Cells::setSize(std::uint32_t offset, std::int32_t size)
{
    ByteWriter writer(bins_);
    writer.u32(offset, std::uint32_t(size));
    (void)writer.ok(); // offsets come from the cell map
    markChanged(offset, Layout::Cell::kHeaderSize);
}

bool Cells::sameBin(std::uint32_t a, std::uint32_t b) const
{
    const auto bin = std::prev(binStarts_.upper_bound(a));
    return b >= bin->first && b < bin->first + bin->second;
}

std::optional<std::uint32_t> Cells::allocate(std::size_t size)
{
    const std::size_t need = (size + Layout::Cell::kHeaderSize + Layout::Cell::kAlignment - 1) /
                             Layout::Cell::kAlignment * Layout::Cell::kAlignment;
    auto fit = std::find_if(free_.begin(), free_.end(), [&](const auto& cell) { return cell.second >= need; });
    if (fit == free_.end()) {
        if (bins_.size() + need + Layout::Bin::kHeaderSize > 0x7FFFF000) {
            Error::set(Error::NoSpace, "the hive cannot grow beyond 2 GiB");
            return std::nullopt;
        }
        appendBin(need);
        fit = std::prev(free_.end());
    }
    const auto [offset, length] = *fit;
    free_.erase(fit);
    std::uint32_t taken = length;
    if (length - need >= Layout::Cell::kAlignment) {
        taken = std::uint32_t(need);
        free_[offset + taken] = length - taken;
        setSize(offset + taken, std::int32_t(length - taken));
    }
    setSize(offset, -std::int32_t(taken));
    std::fill(bins_.begin() + offset + Layout::Cell::kHeaderSize, bins_.begin() + offset + taken, std::uint8_t(0));
    markChanged(offset, taken);
    allocated_[offset / Layout::Cell::kAlignment] = true;
    return offset;
}

// A bin large enough for one cell of cellSize bytes, all of it one free cell.
void Cells::appendBin(std::size_t cellSize)
{
    namespace B = Layout::Bin;
    const std::size_t size =
        (cellSize + B::kHeaderSize + Layout::kPageSize - 1) / Layout::kPageSize * Layout::kPageSize;
    const auto offset = std::uint32_t(bins_.size());
    bins_.resize(bins_.size() + size, 0);
    allocated_.resize(bins_.size() / Layout::Cell::kAlignment, false);
    ByteWriter writer{std::span(bins_).subspan(offset)};
    writer.bytes(0, std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(B::kSignature), 4));
    writer.u32(B::kOffset, offset);
    writer.u32(B::kSize, std::uint32_t(size));
    (void)writer.ok(); // the bin was just made that large
    binStarts_[offset] = std::uint32_t(size);
    const auto cell = std::uint32_t(offset + B::kHeaderSize);
    free_[cell] = std::uint32_t(size - B::kHeaderSize);
    setSize(cell, std::int32_t(size - B::kHeaderSize));
    markChanged(offset, size);
}

void Cells::release(std::uint32_t offset)
{
    const auto data = cell(offset);
    if (!data)
        return;
    allocated_[offset / Layout::Cell::kAlignment] = false;
    std::uint32_t start = offset;
    auto length = std::uint32_t(data->size() + Layout::Cell::kHeaderSize);
    if (const auto next = free_.find(start + length); next != free_.end() && sameBin(start, next->first)) {
        length += next->second;
        free_.erase(next);
    }
    if (auto previous = free_.lower_bound(start); previous != free_.begin()) {
        --previous;
        if (previous->first + previous->second == start && sameBin(previous->first, start)) {
            start = previous->first;
            length += previous->second;
            free_.erase(previous);
        }
    }
    free_[start] = length;
    setSize(start, std::int32_t(length));
}

} // namespace Platform::Hive
