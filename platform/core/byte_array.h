#pragma once
// An immutable, reference-counted byte string: disk ids, UUID bytes, file-system ids.

#include "platform/core/ref.h"

#include <cstdint>
#include <span>
#include <vector>

namespace Platform {

class ByteArray : public Object {
public:
    explicit ByteArray(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {}

    static Ref<ByteArray> create(std::span<const std::uint8_t> bytes)
    {
        return makeRef<ByteArray>(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
    }

    std::size_t size() const noexcept { return bytes_.size(); }
    const std::uint8_t* data() const noexcept { return bytes_.data(); }
    std::span<const std::uint8_t> bytes() const noexcept { return bytes_; }
    std::uint8_t operator[](std::size_t i) const noexcept { return bytes_[i]; }
    bool operator==(const ByteArray& other) const noexcept { return bytes_ == other.bytes_; }

private:
    std::vector<std::uint8_t> bytes_;
};

} // namespace Platform
