#include "platform/hive/cells.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/hive/layout.h"

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

} // namespace Platform::Hive
