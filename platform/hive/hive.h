#pragma once
// A registry hive read from its primary file: the base block, the hive bins checked cell by
// cell, and the key tree reached from the root through checked records.

#include "platform/hive/base_block.h"
#include "platform/hive/records.h"

#include <ostream>

namespace Platform::Hive {

class Hive {
public:
    // The hive in file; nothing (Error Corrupt, with what is wrong) when its base block or its
    // hive bins are damaged.
    static std::optional<Hive> load(std::vector<std::uint8_t> file);

    const BaseBlock& base() const { return base_; }
    const Cells& cells() const { return cells_; }
    std::optional<KeyRecord> root() const { return readKey(cells_, base_.rootCell); }

    // The key at path ("\" separated, below the root, names compared as Windows does), or
    // nothing (Error PathNotFound, or Corrupt).
    std::optional<KeyRecord> find(const std::string& path) const;
    // The key and everything below it as .reg text, "Windows Registry Editor Version 5.00" form:
    // keys in name order, values in name order, data as hex(type) except four-byte dwords.
    // false (Error Corrupt) when a record below is damaged or the tree is deeper than Windows
    // allows (a subkey list that leads back up); what was written stays.
    bool exportTree(const KeyRecord& key, const std::string& path, std::ostream& out) const;

private:
    bool exportTree(const KeyRecord& key, const std::string& path, std::ostream& out, unsigned depth) const;

    Hive(BaseBlock base, Cells cells) : base_(base), cells_(std::move(cells)) {}

    BaseBlock base_;
    Cells cells_;
};

// Windows' comparison of key names: upper case per UTF-16 unit.
bool sameName(const std::string& a, const std::string& b);

} // namespace Platform::Hive
