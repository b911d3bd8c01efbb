#pragma once
// A boot configuration store read back as its objects and their elements, each element decoded
// by its format: what administrators check after a run.

#include "platform/hive/hive_file.h"
#include "platform/windows/bcd_device.h"

#include <optional>
#include <string>
#include <vector>

namespace Platform::Windows {

struct ElementListing {
    std::string id;
    std::optional<ElementFormat> format;
    std::optional<std::string> text;      // strings and object GUIDs
    std::vector<std::string> objects;     // object lists
    std::optional<std::uint64_t> integer; // integers
    std::optional<bool> boolean;          // booleans
    std::vector<std::uint64_t> integers;  // integer lists
    std::optional<BootDevice> device;     // devices
    std::vector<std::uint8_t> data;       // the raw bytes of anything else
};

struct ObjectListing {
    std::string guid;
    std::string name; // the well-known name, or empty
    std::optional<std::uint32_t> type;
    std::vector<ElementListing> elements;
};

// Nothing when the store has no "Objects" key.
std::optional<std::vector<ObjectListing>> listBootStore(Hive::HiveFile& store);

} // namespace Platform::Windows
