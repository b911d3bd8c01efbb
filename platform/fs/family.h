#pragma once
// What the system knows of each file-system family by its type code, in one table: its name,
// the length of its volume id, and which records it shares with others.

#include "platform/core/fs_type.h"

#include <cstddef>
#include <cstdint>

namespace Platform {

struct FsFamily {
    FsType type;
    const char* name;     // as log lines name it
    std::size_t idLength; // bytes of the volume id; 0 when the family has none we change
    const char* idName;   // what the family calls its volume id
    bool isFat;           // FAT12, FAT16 or FAT32
    bool biosBootSector;  // a boot sector with the BIOS parameter block's geometry and hidden sectors
};

// The family of a type code; a nameless entry ("unknown", no id) for codes outside the table.
const FsFamily& fsFamily(std::uint32_t type);

inline bool isFat(std::uint32_t type)
{
    return fsFamily(type).isFat;
}

} // namespace Platform
