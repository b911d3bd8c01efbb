#pragma once
// Writing a changed hive back the way Windows does, so that a crash or a failed write at any
// point leaves files that recover to the old tree or the new one, never a mix:
// 1. a dirty primary first takes the pages its logs replayed, then a clean base block (until then
//    the logs still replay over it);
// 2. the changed pages go into a new entry of the log that holds the older entries, numbered
//    after every entry either log holds, and are synced there before the primary is touched;
// 3. the primary's base block says a write started, the pages follow, and a clean base block
//    ends it. Nothing changed means nothing written.

#include "platform/core/ref.h"
#include "platform/fs/filesys.h"
#include "platform/hive/hive.h"
#include "platform/hive/recovery.h"

#include <array>
#include <functional>

namespace Platform::Hive {

struct LogSlot {
    std::string name;   // the file's name beside the primary
    Ref<File> file;     // null while the log does not exist
    TransactionLog log; // what it held at open
    std::vector<std::uint8_t> bytes;
};

// What a replay at open produced and the primary does not hold yet: the pages and the base block
// as the logs left them, before any edit, so that they reach the primary without the edits.
struct PendingReplay {
    std::uint32_t sequence = 0;
    std::vector<std::uint8_t> baseBlock;
    std::vector<std::pair<std::uint32_t, std::vector<std::uint8_t>>> pages; // bins offset, 4 KiB
    std::uint64_t fileSize = 0;

    static PendingReplay of(const Recovery& recovery, const std::vector<std::uint8_t>& file);
};

struct HiveFiles {
    Ref<File> primary;
    std::array<LogSlot, 2> logs; // LOG1, LOG2
    // Creates a log that does not exist yet; null when that is not possible.
    std::function<Ref<File>(const std::string& name)> createLog;
};

// pendingReplay is cleared once the primary holds it.
bool flush(Hive& hive, HiveFiles& files, std::optional<PendingReplay>& pendingReplay);

} // namespace Platform::Hive
