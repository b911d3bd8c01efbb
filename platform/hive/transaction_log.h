#pragma once
// A transaction log of a hive as Windows left it beside the primary file: its base block copy and
// the entries that can be replayed, in either format. Only what the checks let through is kept:
// new-format entries from the first one on while signature, sizes, sequence and both hashes
// hold; an old-format log as one entry when its base block is whole.

#include "platform/hive/base_block.h"

#include <vector>

namespace Platform::Hive {

struct LogEntry {
    struct Page {
        std::uint32_t offset; // in the hive bins
        std::span<const std::uint8_t> bytes;
    };
    std::uint32_t sequence = 0;
    std::uint32_t binsSize = 0;
    std::uint32_t flags = 0;
    std::vector<Page> pages;
};

class TransactionLog {
public:
    // The log in bytes, which must outlive it. A file that is empty or no log at all gives a log
    // without entries.
    static TransactionLog read(std::span<const std::uint8_t> bytes);

    const std::optional<BaseBlock>& base() const { return base_; }
    // The first sector as stored: what a primary whose own base block is damaged takes over.
    std::span<const std::uint8_t> baseSector() const { return baseSector_; }
    bool newFormat() const { return newFormat_; }
    // The entries that replay, in sequence order.
    const std::vector<LogEntry>& entries() const { return entries_; }
    // The highest sequence number in the log, valid or not: a new entry must exceed it.
    std::uint32_t highestSequence() const { return highest_; }
    // The first sector's timestamp, which an old-format log shares with the primary it belongs to.
    std::uint64_t timestamp() const { return timestamp_; }

private:
    void readNewEntries(std::span<const std::uint8_t> bytes);
    void readOldPages(std::span<const std::uint8_t> bytes);

    std::optional<BaseBlock> base_;
    std::span<const std::uint8_t> baseSector_;
    bool newFormat_ = false;
    std::vector<LogEntry> entries_;
    std::uint32_t highest_ = 0;
    std::uint64_t timestamp_ = 0;
};

} // namespace Platform::Hive
