#pragma once
// The records of SYSTEM\MountedDevices: which volume a drive letter (\DosDevices\X:) or a volume
// name (\??\Volume{...}) stands for. A partition of an MBR disk is named by the disk signature and
// its byte offset, a GPT partition by "DMIO:ID:" and its GUID; other devices by a device path.

#include "platform/core/guid.h"
#include "platform/windows/volume_identity.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

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

// The partition a record names (a GPT record names no disk); nothing for a device path.
std::optional<VolumeIdentity> identityOf(const MountedDevice& device);
// The record that names identity: 12 bytes on an MBR disk, 24 on a GPT disk.
std::vector<std::uint8_t> encodeMountedDevice(const VolumeIdentity& identity);

} // namespace Platform::Windows
