#pragma once
// The device elements of a boot configuration store (REG_BINARY): a 16-byte options GUID, then a
// descriptor (type, flags, size, body). A partition descriptor names its partition and disk in
// either partition style; a ramdisk (the recovery environment's image) nests the descriptor of
// the partition that holds its image, followed by the image's path.

#include "platform/core/guid.h"
#include "platform/windows/volume_identity.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Platform::Windows {

// Element ids are 8 hex digits; bits 24..27 of the number say how the data reads.
enum class ElementFormat {
    Device = 1,
    String = 2,
    Object = 3,
    ObjectList = 4,
    Integer = 5,
    Boolean = 6,
    IntegerList = 7
};
std::optional<ElementFormat> elementFormat(const std::string& elementId);

enum class DeviceType : std::uint32_t { Block = 0, Boot = 5, Partition = 6, Locate = 8 };

struct BootDevice {
    Guid options{};
    std::uint32_t type = 0;                 // a DeviceType number
    bool ramdisk = false;                   // a block device of the ramdisk kind
    std::optional<VolumeIdentity> location; // the partition named, nested or not
    std::string imagePath;                  // a ramdisk's image, as UTF-8
};

// What the element names; nothing when the bytes are too short for their own header.
std::optional<BootDevice> decodeBootDevice(std::span<const std::uint8_t> data);

// The offsets of the partition descriptors' bodies in data: the top-level one and one nested in
// a ramdisk. Boot and locate devices have none.
std::vector<std::size_t> partitionRecords(std::span<const std::uint8_t> data);
// Empty when the record does not fit in data.
VolumeIdentity readPartitionRecord(std::span<const std::uint8_t> data, std::size_t body);
// Writes identity's style, partition and disk fields; every other byte stays. False when the
// record does not fit in data.
bool writePartitionRecord(std::span<std::uint8_t> data, std::size_t body, const VolumeIdentity& identity);

// The 88-byte partition device element of a GPT partition; an id of another size leaves its
// field zero.
std::vector<std::uint8_t> gptPartitionDevice(std::span<const std::uint8_t> partition,
                                             std::span<const std::uint8_t> disk);

} // namespace Platform::Windows
