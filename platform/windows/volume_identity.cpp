#include "platform/windows/volume_identity.h"

#include "platform/core/bytes.h"
#include "platform/core/guid.h"

namespace Platform::Windows {

namespace {

std::string guidText(std::span<const std::uint8_t> bytes)
{
    Guid guid{};
    std::copy(bytes.begin(), bytes.end(), guid.begin());
    return "{" + guidToText(guid) + "}";
}

std::string hex(std::span<const std::uint8_t> bytes)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes)
        text += {kDigits[byte >> 4], kDigits[byte & 0xF]};
    return text;
}

} // namespace

std::string describeIdentity(const VolumeIdentity& identity)
{
    std::string disk;
    if (identity.disk.size() == kGptIdSize)
        disk = guidText(identity.disk);
    else if (identity.disk.size() == kMbrDiskIdSize) // a signature reads as the number it is
        disk = hex(std::vector<std::uint8_t>(identity.disk.rbegin(), identity.disk.rend()));
    else
        disk = hex(identity.disk);
    if (identity.gpt())
        return (disk.empty() ? "" : "disk " + disk + " ") + "partition " + guidText(identity.partition);
    ByteView offset(identity.partition);
    const std::uint64_t bytes = offset.u64(0);
    return "disk " + disk + " offset " + (offset.ok() ? std::to_string(bytes) : hex(identity.partition));
}

} // namespace Platform::Windows
