#pragma once
// A registry hive in memory: the base block, the hive bins checked cell by cell, and the key tree
// reached from the root through checked records. Edits change cells in place, keep subkey lists
// sorted as Windows sorts them and security reference counts right; the pages they change are
// what a flush writes.

#include "platform/hive/base_block.h"
#include "platform/hive/records.h"

#include <ostream>
#include <utility>

namespace Platform::Hive {

class Hive {
public:
    // The hive in file; nothing (Error Corrupt, with what is wrong) when its base block or its
    // hive bins are damaged.
    static std::optional<Hive> load(std::vector<std::uint8_t> file);

    const BaseBlock& base() const { return base_; }
    // The base block as it will be written: every field the hive does not interpret kept.
    std::span<const std::uint8_t> baseBytes() const { return baseBytes_; }
    const Cells& cells() const { return cells_; }
    Cells& cells() { return cells_; }
    std::optional<KeyRecord> root() const { return readKey(cells_, base_.rootCell); }

    // The key at path ("\" separated, below the root, names compared as Windows does), or
    // nothing (Error PathNotFound, or Corrupt).
    std::optional<KeyRecord> find(const std::string& path) const;
    // The key and everything below it as .reg text, "Windows Registry Editor Version 5.00" form:
    // keys in name order, values in name order, data as hex(type) except four-byte dwords.
    // false (Error Corrupt) when a record below is damaged or the tree is deeper than Windows
    // allows (a subkey list that leads back up); what was written stays.
    bool exportTree(const KeyRecord& key, const std::string& path, std::ostream& out) const;

    // Edits. Each checks what it reads and returns nothing or false with Error set, and then
    // the hive is as it was or the edit is whole; offsets name the nk and vk cells.
    std::optional<std::uint32_t> findSubkey(std::uint32_t key, const std::string& name) const;
    std::optional<std::uint32_t> findValue(std::uint32_t key, const std::string& name) const;
    // The subkey of that name, made when it does not exist (Windows' create-or-open).
    std::optional<std::uint32_t> createKey(std::uint32_t parent, const std::string& name);
    // Removes the key with everything below it from its parent.
    bool deleteKey(std::uint32_t parent, std::uint32_t key);
    // The key's offset afterwards: a longer name may move it.
    std::optional<std::uint32_t> renameKey(std::uint32_t parent, std::uint32_t key, const std::string& name);
    // Sets (or creates) the value; its vk offset.
    std::optional<std::uint32_t> setValue(std::uint32_t key, const std::string& name, std::uint32_t type,
                                          std::span<const std::uint8_t> data);
    bool deleteValue(std::uint32_t key, std::uint32_t value);
    // Overwrites data of the value from position on, without changing its size.
    bool patchData(std::uint32_t value, std::size_t position, std::span<const std::uint8_t> bytes);
    // The nk and vk cells the deletions since the last call freed.
    std::vector<std::uint32_t> takeReleased() { return std::exchange(released_, {}); }

    // After a flush: the base block's new sequence numbers, and no page counts as changed.
    void settle(std::uint32_t sequence);
    // The primary is clean at this sequence; changed pages stay changed.
    void setSequence(std::uint32_t sequence);
    // The base block with the given sequence numbers and the present bins size, checksum right.
    std::vector<std::uint8_t> baseBlockFor(std::uint32_t primary, std::uint32_t secondary) const;

private:
    std::optional<std::vector<std::uint32_t>> subkeysOf(std::uint32_t key) const;
    bool writeSubkeys(std::uint32_t key, std::vector<std::uint32_t> subkeys);
    bool deleteTree(std::uint32_t key, unsigned depth);
    bool releaseSecurity(std::uint32_t security);
    std::optional<std::uint32_t> storeData(std::span<const std::uint8_t> data, std::uint32_t& sizeField);
    void releaseData(const ValueRecord& value);
    bool bigData(const ValueRecord& value) const;
    bool exportTree(const KeyRecord& key, const std::string& path, std::ostream& out, unsigned depth) const;

    Hive(BaseBlock base, std::vector<std::uint8_t> baseBytes, Cells cells)
        : base_(base), baseBytes_(std::move(baseBytes)), cells_(std::move(cells))
    {
    }

    BaseBlock base_;
    std::vector<std::uint8_t> baseBytes_;
    Cells cells_;
    std::vector<std::uint32_t> released_;
};

} // namespace Platform::Hive
