#pragma once
// The records of a hive as the tree reads them: key nodes, their subkey lists of every kind, value
// lists, value nodes and value data (inline, in one cell, or as big data). Every offset, count
// and size is checked against the cells before it is used.

#include "platform/core/error.h"
#include "platform/hive/cells.h"
#include "platform/hive/names.h"

#include <string>

namespace Platform::Hive {

struct KeyRecord {
    std::uint32_t offset = 0;
    std::string name; // UTF-8
    std::uint16_t flags = 0;
    std::uint32_t subkeyCount = 0;
    std::uint32_t subkeyList = 0;
    std::uint32_t valueCount = 0;
    std::uint32_t valueList = 0;
    std::uint32_t security = 0;
    std::uint32_t classCell = 0;
    std::uint16_t classLength = 0;
};

struct ValueRecord {
    std::uint32_t offset = 0;
    std::string name; // UTF-8; empty for the key's default value
    std::uint32_t type = 0;
    std::uint32_t dataSize = 0; // without the inline flag
    bool inlineData = false;
    std::uint32_t dataField = 0; // the data itself when inline, else its cell
};

// Nothing, with Error Corrupt, wherever a record is not what it must be.
std::optional<KeyRecord> readKey(const Cells& cells, std::uint32_t offset);
// The key's subkeys in list order (sorted by upper-case name), through lf, lh, li and ri lists.
std::optional<std::vector<std::uint32_t>> readSubkeys(const Cells& cells, const KeyRecord& key);
std::optional<std::vector<std::uint32_t>> readValueList(const Cells& cells, const KeyRecord& key);
std::optional<ValueRecord> readValue(const Cells& cells, std::uint32_t offset);
// The value's data; big data (db) on hives of minor version 4 and up.
std::optional<std::vector<std::uint8_t>> readData(const Cells& cells, const ValueRecord& value,
                                                  std::uint32_t minorVersion);

// The first of the records at offsets whose name is name, as Windows compares names; nothing,
// with Error PathNotFound, when none is (or Corrupt when a record is damaged).
template <typename Record>
std::optional<std::uint32_t> findNamed(const Cells& cells, const std::optional<std::vector<std::uint32_t>>& offsets,
                                       std::optional<Record> (*read)(const Cells&, std::uint32_t),
                                       const std::string& name)
{
    if (!offsets)
        return std::nullopt;
    for (const std::uint32_t offset : *offsets) {
        const auto record = read(cells, offset);
        if (!record)
            return std::nullopt;
        if (sameName(record->name, name))
            return offset;
    }
    Error::set(Error::PathNotFound);
    return std::nullopt;
}

} // namespace Platform::Hive
