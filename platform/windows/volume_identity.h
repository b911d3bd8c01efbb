#pragma once
// How Windows names a partition in its drive-letter records and boot devices: by its disk (an MBR
// signature or a GPT disk GUID) and its place on that disk (the byte offset on an MBR disk, the
// partition GUID on a GPT disk).

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Platform::Windows {

struct VolumeIdentity {
    using Bytes = std::vector<std::uint8_t>;
    Bytes disk;      // 4 bytes (signature), 16 (GUID), or empty when not named
    Bytes partition; // 8 bytes (byte offset, little-endian) or 16 (GUID)

    bool gpt() const { return partition.size() == 16; }
    bool operator==(const VolumeIdentity&) const = default;
};

inline constexpr std::size_t kMbrDiskIdSize = 4;
inline constexpr std::size_t kGptIdSize = 16;
inline constexpr std::size_t kByteOffsetSize = 8;

// "disk 1a2b3c4d offset 1048576" or "disk {GUID} partition {GUID}", for logs and listings.
std::string describeIdentity(const VolumeIdentity& identity);

} // namespace Platform::Windows
