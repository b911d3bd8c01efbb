#pragma once
// Replaying a dirty hive's transaction logs over its primary file as Windows does at boot: the
// new-format logs in sequence order across both files (only the newest when the primary's base
// block is damaged), else an old-format log whose timestamp matches the primary's.

#include "platform/hive/transaction_log.h"

namespace Platform::Hive {

struct Recovery {
    bool replayed = false;
    std::uint32_t sequence = 0;       // of the last entry applied
    int lastLog = -1;                 // the log that held it
    std::vector<std::uint32_t> pages; // bins offsets of the 4 KiB pages written, ascending
};

// Brings file (the whole primary, base block first) up to date. A clean primary is left alone and
// its logs ignored. Nothing, with Error DirtyLog and why, when it is dirty and no log finishes it.
std::optional<Recovery> recover(std::vector<std::uint8_t>& file, std::span<const TransactionLog> logs);

} // namespace Platform::Hive
