#pragma once
// Bounds-checked access to on-disk bytes, little-endian unless a name says otherwise. Reads past
// the end yield 0 and set a sticky error, so that a parser can read every field and check once.
// Debug builds stop when a reader or writer whose error was set goes away unasked: a parser that
// never checks ok() would take the zeros for data.

#include <cassert>
#include <cstdint>
#include <span>

namespace Platform {

namespace Detail {
// The sticky bounds error of a reader or writer, and whether anyone asked for it.
class StickyError {
public:
    StickyError() = default;
    StickyError(const StickyError&) = delete;
    StickyError& operator=(const StickyError&) = delete;
    ~StickyError() { assert((ok_ || asked_) && "a bounds error of ByteView/ByteWriter was never checked"); }

    void set() noexcept { ok_ = false; }
    bool ok() const noexcept
    {
        asked_ = true;
        return ok_;
    }
    bool okUnasked() const noexcept { return ok_; }

private:
    bool ok_ = true;
    mutable bool asked_ = false;
};
} // namespace Detail

class ByteView {
public:
    explicit ByteView(std::span<const std::uint8_t> bytes) noexcept : bytes_(bytes) {}

    [[nodiscard]] std::uint8_t u8(std::size_t offset) noexcept { return std::uint8_t(get(offset, 1)); }
    [[nodiscard]] std::uint16_t u16(std::size_t offset) noexcept { return std::uint16_t(get(offset, 2)); }
    [[nodiscard]] std::uint32_t u32(std::size_t offset) noexcept { return std::uint32_t(get(offset, 4)); }
    [[nodiscard]] std::uint64_t u64(std::size_t offset) noexcept { return get(offset, 8); }
    // Big-endian reads, for the structures that store them so (XFS).
    [[nodiscard]] std::uint16_t be16(std::size_t offset) noexcept { return std::uint16_t(getBig(offset, 2)); }
    [[nodiscard]] std::uint32_t be32(std::size_t offset) noexcept { return std::uint32_t(getBig(offset, 4)); }
    [[nodiscard]] std::uint64_t be64(std::size_t offset) noexcept { return getBig(offset, 8); }
    // A sub-range; empty (and the error set) when it does not fit.
    [[nodiscard]] std::span<const std::uint8_t> bytes(std::size_t offset, std::size_t length) noexcept
    {
        if (!fits(offset, length))
            return {};
        return bytes_.subspan(offset, length);
    }

    [[nodiscard]] bool ok() const noexcept { return error_.ok(); }
    std::size_t size() const noexcept { return bytes_.size(); }

private:
    bool fits(std::size_t offset, std::size_t length) noexcept
    {
        if (offset > bytes_.size() || length > bytes_.size() - offset)
            error_.set();
        return error_.okUnasked();
    }
    std::uint64_t get(std::size_t offset, std::size_t width) noexcept
    {
        if (!fits(offset, width))
            return 0;
        std::uint64_t value = 0;
        for (std::size_t i = width; i-- > 0;)
            value = value << 8 | bytes_[offset + i];
        return value;
    }

    std::uint64_t getBig(std::size_t offset, std::size_t width) noexcept
    {
        if (!fits(offset, width))
            return 0;
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < width; ++i)
            value = value << 8 | bytes_[offset + i];
        return value;
    }

    std::span<const std::uint8_t> bytes_;
    Detail::StickyError error_;
};

// Little-endian stores into a mutable buffer, with the same sticky bounds check.
class ByteWriter {
public:
    explicit ByteWriter(std::span<std::uint8_t> bytes) noexcept : bytes_(bytes) {}

    void u8(std::size_t offset, std::uint8_t value) noexcept { put(offset, value, 1); }
    void u16(std::size_t offset, std::uint16_t value) noexcept { put(offset, value, 2); }
    void u32(std::size_t offset, std::uint32_t value) noexcept { put(offset, value, 4); }
    void u64(std::size_t offset, std::uint64_t value) noexcept { put(offset, value, 8); }
    void be16(std::size_t offset, std::uint16_t value) noexcept { putBig(offset, value, 2); }
    void be32(std::size_t offset, std::uint32_t value) noexcept { putBig(offset, value, 4); }
    void be64(std::size_t offset, std::uint64_t value) noexcept { putBig(offset, value, 8); }
    void bytes(std::size_t offset, std::span<const std::uint8_t> value) noexcept
    {
        if (offset > bytes_.size() || value.size() > bytes_.size() - offset) {
            error_.set();
            return;
        }
        for (std::size_t i = 0; i < value.size(); ++i)
            bytes_[offset + i] = value[i];
    }
    [[nodiscard]] bool ok() const noexcept { return error_.ok(); }

private:
    void put(std::size_t offset, std::uint64_t value, std::size_t width) noexcept
    {
        if (offset > bytes_.size() || width > bytes_.size() - offset) {
            error_.set();
            return;
        }
        for (std::size_t i = 0; i < width; ++i)
            bytes_[offset + i] = std::uint8_t(value >> (8 * i));
    }

    void putBig(std::size_t offset, std::uint64_t value, std::size_t width) noexcept
    {
        if (offset > bytes_.size() || width > bytes_.size() - offset) {
            error_.set();
            return;
        }
        for (std::size_t i = 0; i < width; ++i)
            bytes_[offset + i] = std::uint8_t(value >> (8 * (width - 1 - i)));
    }

    std::span<std::uint8_t> bytes_;
    Detail::StickyError error_;
};

} // namespace Platform
