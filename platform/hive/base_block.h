#pragma once
// The base block that starts a hive and each of its logs: version, sequence numbers, the size of
// the hive bins and the root key, under a checksum.

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace Platform::Hive {

struct BaseBlock {
    std::uint32_t primarySequence = 0;
    std::uint32_t secondarySequence = 0;
    std::uint32_t majorVersion = 0;
    std::uint32_t minorVersion = 0;
    std::uint32_t fileType = 0;
    std::uint32_t rootCell = 0;
    std::uint32_t binsSize = 0;
    bool checksumRight = false;

    // What the block says, when it carries the signature; nothing otherwise (Error Corrupt).
    static std::optional<BaseBlock> parse(std::span<const std::uint8_t> block);
    // XOR of the 127 dwords before the checksum field, 0 and all ones replaced as Windows does.
    static std::uint32_t checksumOf(std::span<const std::uint8_t> block);

    // Why the block cannot describe a hive (version, sizes, file format), or empty.
    std::string problem() const;
    // Windows wrote it without finishing: the sequence numbers differ or the checksum is wrong.
    bool dirty() const { return !checksumRight || primarySequence != secondarySequence; }
};

} // namespace Platform::Hive
