#include "platform/windows/bcd_device.h"

#include "platform/core/bytes.h"
#include "platform/core/unicode.h"

#include <algorithm>
#include <cstdlib>

namespace Platform::Windows {

namespace {

constexpr std::size_t kOptionsSize = 16;
constexpr std::size_t kDescriptorHeader = 16; // type, flags, size, reserved
constexpr std::size_t kTopDescriptor = kOptionsSize;
constexpr std::size_t kPartitionBody = 56;
constexpr std::size_t kPartitionDeviceSize = kTopDescriptor + kDescriptorHeader + kPartitionBody; // 88

// Inside a partition descriptor's body.
constexpr std::size_t kStyleOffset = 20;
constexpr std::size_t kDiskOffset = 24;
constexpr std::uint32_t kStyleGpt = 0;
constexpr std::uint32_t kStyleMbr = 1;

// A ramdisk's body: its kind, the image's place, a header, then the nested descriptor.
constexpr std::uint32_t kRamdiskKind = 3;
constexpr std::size_t kNestedDescriptor = 68;

bool holdsPartition(std::span<const std::uint8_t> data, std::size_t descriptor)
{
    ByteView view(data);
    const std::uint32_t type = view.u32(descriptor);
    return view.ok() && type == std::uint32_t(DeviceType::Partition) &&
           descriptor + kDescriptorHeader + kPartitionBody <= data.size();
}

bool isRamdisk(std::span<const std::uint8_t> data)
{
    ByteView view(data);
    const std::uint32_t type = view.u32(kTopDescriptor);
    const std::uint32_t kind = view.u32(kTopDescriptor + kDescriptorHeader);
    return view.ok() && type == std::uint32_t(DeviceType::Block) && kind == kRamdiskKind;
}

std::string utf16Path(std::span<const std::uint8_t> bytes)
{
    std::u16string units;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const char16_t unit = char16_t(bytes[i] | bytes[i + 1] << 8);
        if (unit == 0)
            break;
        units.push_back(unit);
    }
    return utf8(units);
}

} // namespace

std::optional<ElementFormat> elementFormat(const std::string& elementId)
{
    if (elementId.size() != 8 || !std::all_of(elementId.begin(), elementId.end(), ::isxdigit))
        return std::nullopt;
    const auto number = std::strtoul(elementId.c_str(), nullptr, 16);
    const auto format = (number >> 24) & 0xF;
    if (format < 1 || format > 7)
        return std::nullopt;
    return ElementFormat(format);
}

std::vector<std::size_t> partitionRecords(std::span<const std::uint8_t> data)
{
    if (holdsPartition(data, kTopDescriptor))
        return {kTopDescriptor + kDescriptorHeader};
    if (isRamdisk(data) && holdsPartition(data, kNestedDescriptor))
        return {kNestedDescriptor + kDescriptorHeader};
    return {};
}

VolumeIdentity readPartitionRecord(std::span<const std::uint8_t> data, std::size_t body)
{
    ByteView view(data);
    VolumeIdentity identity;
    if (view.u32(body + kStyleOffset) == kStyleMbr) {
        const auto offset = view.bytes(body, kByteOffsetSize);
        const auto signature = view.bytes(body + kDiskOffset, kMbrDiskIdSize);
        identity.partition.assign(offset.begin(), offset.end());
        identity.disk.assign(signature.begin(), signature.end());
    } else {
        const auto partition = view.bytes(body, kGptIdSize);
        const auto disk = view.bytes(body + kDiskOffset, kGptIdSize);
        identity.partition.assign(partition.begin(), partition.end());
        identity.disk.assign(disk.begin(), disk.end());
    }
    return view.ok() ? identity : VolumeIdentity{};
}

bool writePartitionRecord(std::span<std::uint8_t> data, std::size_t body, const VolumeIdentity& identity)
{
    ByteWriter writer(data);
    const std::vector<std::uint8_t> zero(kGptIdSize, 0);
    writer.bytes(body, zero);
    writer.bytes(body, identity.partition);
    writer.u32(body + kStyleOffset, identity.gpt() ? kStyleGpt : kStyleMbr);
    writer.bytes(body + kDiskOffset, zero);
    writer.bytes(body + kDiskOffset, identity.disk);
    return writer.ok();
}

std::optional<BootDevice> decodeBootDevice(std::span<const std::uint8_t> data)
{
    ByteView view(data);
    BootDevice device;
    const auto options = view.bytes(0, kOptionsSize);
    device.type = view.u32(kTopDescriptor);
    if (!view.ok())
        return std::nullopt;
    std::copy(options.begin(), options.end(), device.options.begin());
    device.ramdisk = isRamdisk(data);
    if (const auto records = partitionRecords(data); !records.empty())
        device.location = readPartitionRecord(data, records.front());
    if (device.ramdisk && holdsPartition(data, kNestedDescriptor)) {
        ByteView nested(data);
        const std::size_t nestedSize = nested.u32(kNestedDescriptor + 8);
        if (nested.ok() && kNestedDescriptor + nestedSize < data.size())
            device.imagePath = utf16Path(data.subspan(kNestedDescriptor + nestedSize));
    }
    return device;
}

std::vector<std::uint8_t> gptPartitionDevice(std::span<const std::uint8_t> partition,
                                             std::span<const std::uint8_t> disk)
{
    std::vector<std::uint8_t> data(kPartitionDeviceSize, 0);
    ByteWriter writer(data);
    writer.u32(kTopDescriptor, std::uint32_t(DeviceType::Partition));
    writer.u32(kTopDescriptor + 8, std::uint32_t(kDescriptorHeader + kPartitionBody));
    const std::size_t body = kTopDescriptor + kDescriptorHeader;
    if (partition.size() == kGptIdSize)
        writer.bytes(body, partition);
    if (disk.size() == kGptIdSize)
        writer.bytes(body + kDiskOffset, disk);
    return writer.ok() ? data : std::vector<std::uint8_t>{};
}

} // namespace Platform::Windows
