// The three forms of a MountedDevices record, as a real SYSTEM hive and Windows 10 on GPT write
// them.

#include "platform/windows/mounted_devices.h"

#include <gtest/gtest.h>

namespace Platform::Windows {
namespace {

TEST(MountedDevices, DecodesEachFormWindowsWrites)
{
    // C: of the SYSTEM fixture: signature 5CBEA03E, partition at 1 MiB.
    const std::vector<std::uint8_t> mbr = {0x3e, 0xa0, 0xbe, 0x5c, 0, 0, 0x10, 0, 0, 0, 0, 0};
    const auto disk = decodeMountedDevice(mbr);
    EXPECT_EQ(disk.form, MountedDevice::Form::MbrPartition);
    EXPECT_EQ(disk.diskSignature, 0x5CBEA03Eu);
    EXPECT_EQ(disk.byteOffset, 1u << 20);

    std::vector<std::uint8_t> gpt = {'D', 'M', 'I', 'O', ':', 'I', 'D', ':'};
    const Guid id = guidFromText("0FC63DAF-8483-4772-8E79-3D69D8477DE4");
    gpt.insert(gpt.end(), id.begin(), id.end());
    const auto partition = decodeMountedDevice(gpt);
    EXPECT_EQ(partition.form, MountedDevice::Form::GptPartition);
    EXPECT_EQ(guidToText(partition.partitionGuid), "0FC63DAF-8483-4772-8E79-3D69D8477DE4");

    const std::u16string path = u"\\??\\IDE#CdRom";
    std::vector<std::uint8_t> device;
    for (const char16_t unit : path) {
        device.push_back(std::uint8_t(unit));
        device.push_back(std::uint8_t(unit >> 8));
    }
    EXPECT_EQ(decodeMountedDevice(device).devicePath, "\\??\\IDE#CdRom");
}

} // namespace
} // namespace Platform::Windows
