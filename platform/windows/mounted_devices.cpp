#include "platform/windows/mounted_devices.h"

#include "platform/core/bytes.h"
#include "platform/core/unicode.h"

#include <algorithm>
#include <cstring>

namespace Platform::Windows {

namespace {

constexpr std::size_t kMbrRecordSize = 12;
constexpr std::string_view kGptPrefix = "DMIO:ID:";
constexpr std::size_t kGptRecordSize = 24;

} // namespace

MountedDevice decodeMountedDevice(std::span<const std::uint8_t> data)
{
    MountedDevice device;
    if (data.size() == kMbrRecordSize) {
        ByteView view(data);
        device.form = MountedDevice::Form::MbrPartition;
        device.diskSignature = view.u32(0);
        device.byteOffset = view.u64(4);
        if (view.ok())
            return device;
    }
    if (data.size() == kGptRecordSize && std::memcmp(data.data(), kGptPrefix.data(), kGptPrefix.size()) == 0) {
        device.form = MountedDevice::Form::GptPartition;
        std::copy_n(data.begin() + kGptPrefix.size(), device.partitionGuid.size(), device.partitionGuid.begin());
        return device;
    }
    device.form = MountedDevice::Form::DevicePath;
    std::u16string units;
    for (std::size_t i = 0; i + 1 < data.size(); i += 2)
        units.push_back(char16_t(data[i] | data[i + 1] << 8));
    device.devicePath = utf8(units);
    return device;
}

std::optional<VolumeIdentity> identityOf(const MountedDevice& device)
{
    VolumeIdentity identity;
    switch (device.form) {
    case MountedDevice::Form::MbrPartition:
        identity.disk.resize(kMbrDiskIdSize);
        identity.partition.resize(kByteOffsetSize);
        {
            ByteWriter disk(identity.disk), offset(identity.partition);
            disk.u32(0, device.diskSignature);
            offset.u64(0, device.byteOffset);
            if (!disk.ok() || !offset.ok())
                return std::nullopt;
        }
        return identity;
    case MountedDevice::Form::GptPartition:
        identity.partition.assign(device.partitionGuid.begin(), device.partitionGuid.end());
        return identity;
    case MountedDevice::Form::DevicePath:
        break;
    }
    return std::nullopt;
}

std::vector<std::uint8_t> encodeMountedDevice(const VolumeIdentity& identity)
{
    if (identity.gpt()) {
        std::vector<std::uint8_t> record(kGptPrefix.begin(), kGptPrefix.end());
        record.insert(record.end(), identity.partition.begin(), identity.partition.end());
        return record;
    }
    std::vector<std::uint8_t> record(identity.disk);
    record.insert(record.end(), identity.partition.begin(), identity.partition.end());
    return record;
}

} // namespace Platform::Windows
