#pragma once
// Crafts MBR and EBR sectors in a memory storage, for tests of damaged and unusual tables.

#include "platform/storage/memory_storage.h"

#include <cstdint>

namespace TestSupport {

inline void putLe32(std::uint8_t* at, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        at[i] = std::uint8_t(value >> (8 * i));
}

// Writes entry slot (0-3) of the boot record at lba and marks the record valid.
inline void writeMbrEntry(Platform::MemoryStorage& disk, std::uint64_t lba, int slot, std::uint8_t type,
                          std::uint32_t start, std::uint32_t size)
{
    std::uint8_t* sector = disk.bytes().data() + lba * 512;
    std::uint8_t* entry = sector + 0x1BE + 16 * slot;
    entry[4] = type;
    putLe32(entry + 8, start);
    putLe32(entry + 12, size);
    sector[510] = 0x55;
    sector[511] = 0xAA;
}

inline void writeSignature(Platform::MemoryStorage& disk, std::uint32_t signature)
{
    putLe32(disk.bytes().data() + 0x1B8, signature);
    disk.bytes()[510] = 0x55;
    disk.bytes()[511] = 0xAA;
}

} // namespace TestSupport
