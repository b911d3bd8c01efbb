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

} // namespace Platform::Windows
