#pragma once
// FAT directories: 32-byte entries read through the bounds-checked reader, long names tied to
// their 8.3 entry by its checksum, and entries added, updated and deleted in place. The FAT12/16
// root has a fixed size; every other directory is a cluster chain that grows when full.

#include "platform/fs/fat/allocation_table.h"
#include "platform/fs/fat/names.h"

#include <optional>
#include <string>
#include <vector>

namespace Platform::Fat {

struct Node {
    std::string name;
    std::uint8_t attributes = 0;
    std::uint32_t firstCluster = 0;
    std::uint32_t size = 0;
    std::uint64_t entryOffset = 0;              // the 8.3 entry's byte offset; 0 for the root
    ShortName shortName{};                      // as the 8.3 entry holds it
    std::vector<std::uint64_t> longNameOffsets; // its long-name entries
    bool isDirectory() const;
    bool isFixedRoot(const AllocationTable& table) const { return entryOffset == 0 && table.boot().type != FsFat32; }
};

Node rootDirectory(const AllocationTable& table);
// The directory's entries, volume labels and deleted entries left out; nothing on a damaged
// chain or a failed read.
std::optional<std::vector<Node>> listDirectory(const AllocationTable& table, const Node& directory);
// Adds an entry for name (long-name entries too when the name needs them) in directory; Error
// Exists when the name is taken, NoSpace when a fixed root is full.
std::optional<Node> addEntry(AllocationTable& table, const Node& directory, const std::string& name,
                             std::uint8_t attributes, std::uint32_t firstCluster);
// "." and ".." of a new directory's first cluster.
bool writeDotEntries(AllocationTable& table, std::uint32_t cluster, std::uint32_t parentCluster);
// The entry's cluster, size and write time after its file changed.
bool updateEntry(AllocationTable& table, const Node& node);
bool markDeleted(AllocationTable& table, const Node& node);

} // namespace Platform::Fat
