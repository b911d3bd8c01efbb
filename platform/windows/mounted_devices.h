#pragma once
// The records of SYSTEM\MountedDevices: which volume a drive letter (\DosDevices\X:) or a volume
// name (\??\Volume{...}) stands for. A partition of an MBR disk is named by the disk signature and
// its byte offset, a GPT partition by "DMIO:ID:" and its GUID; other devices by a device path.

#include "platform/core/guid.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace Platform::Windows {

struct MountedDevice {
    enum class Form { MbrPartition, GptPartition, DevicePath };
    Form form = Form::DevicePath;
    std::uint32_t diskSignature = 0; // MbrPartition
    std::uint64_t byteOffset = 0;    // MbrPartition
    Guid partitionGuid{};            // GptPartition
    std::string devicePath;          // DevicePath, as UTF-8
};

MountedDevice decodeMountedDevice(std::span<const std::uint8_t> data);

} // namespace Platform::Windows
