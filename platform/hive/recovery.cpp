#include "platform/hive/recovery.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/hive/layout.h"

#include <algorithm>
#include <cstring>

namespace Platform::Hive {

namespace {

namespace B = Layout::BaseBlock;

void apply(const LogEntry& entry, std::vector<std::uint8_t>& file, Recovery& recovery)
{
    if (file.size() < B::kSize + std::size_t(entry.binsSize))
        file.resize(B::kSize + std::size_t(entry.binsSize));
    for (const auto& page : entry.pages) {
        std::memcpy(file.data() + B::kSize + page.offset, page.bytes.data(), page.bytes.size());
        for (std::size_t at = page.offset / Layout::kPageSize * Layout::kPageSize; at < page.offset + page.bytes.size();
             at += Layout::kPageSize)
            recovery.pages.push_back(std::uint32_t(at));
    }
    recovery.replayed = true;
    recovery.sequence = entry.sequence;
}

// New-format logs. primary: the valid base block, or nothing when it is damaged.
void replayNew(const std::optional<BaseBlock>& primary, std::vector<std::uint8_t>& file,
               std::span<const TransactionLog> logs, Recovery& recovery)
{
    std::vector<int> usable;
    for (int i = 0; i < int(logs.size()); ++i) {
        const auto& entries = logs[std::size_t(i)].entries();
        if (logs[std::size_t(i)].newFormat() && !entries.empty() &&
            (!primary || entries.front().sequence >= primary->secondarySequence))
            usable.push_back(i);
    }
    if (usable.empty())
        return;
    const auto first = [&](int i) { return logs[std::size_t(i)].entries().front().sequence; };
    const auto last = [&](int i) { return logs[std::size_t(i)].entries().back().sequence; };
    if (!primary) {
        // Only the log with the newest entries, and its base block for the primary's.
        const int newest =
            *std::max_element(usable.begin(), usable.end(), [&](int a, int b) { return last(a) < last(b); });
        const auto& log = logs[std::size_t(newest)];
        file.resize(std::max(file.size(), B::kSize));
        std::memcpy(file.data(), log.baseSector().data(), log.baseSector().size());
        for (const auto& entry : log.entries())
            apply(entry, file, recovery);
        recovery.lastLog = newest;
        return;
    }
    std::sort(usable.begin(), usable.end(), [&](int a, int b) { return first(a) < first(b); });
    for (const auto& entry : logs[std::size_t(usable[0])].entries())
        apply(entry, file, recovery);
    recovery.lastLog = usable[0];
    // Then the other log, from the entry that continues the sequence.
    for (int i = 0; i < int(logs.size()); ++i) {
        if (i == usable[0] || !logs[std::size_t(i)].newFormat())
            continue;
        bool continued = false;
        for (const auto& entry : logs[std::size_t(i)].entries()) {
            if (entry.sequence == recovery.sequence + 1) {
                apply(entry, file, recovery);
                continued = true;
            }
        }
        if (continued) {
            recovery.lastLog = i;
            break;
        }
    }
}

// An old-format log: the newest whole one whose timestamp says it belongs to this primary.
void replayOld(const std::optional<BaseBlock>& primary, std::vector<std::uint8_t>& file,
               std::span<const TransactionLog> logs, Recovery& recovery)
{
    ByteView view(file);
    const std::uint64_t stamp = primary ? view.u64(B::kTimestamp) : view.u64(B::kSize + Layout::Bin::kTimestamp);
    if (!view.ok())
        return;
    int chosen = -1;
    for (int i = 0; i < int(logs.size()); ++i) {
        const auto& log = logs[std::size_t(i)];
        if (log.newFormat() || log.entries().empty() || log.timestamp() != stamp)
            continue;
        if (chosen < 0 || log.entries().front().sequence > logs[std::size_t(chosen)].entries().front().sequence)
            chosen = i;
    }
    if (chosen < 0)
        return;
    const auto& log = logs[std::size_t(chosen)];
    if (!primary) {
        file.resize(std::max(file.size(), B::kSize));
        std::memcpy(file.data(), log.baseSector().data(), log.baseSector().size());
    }
    apply(log.entries().front(), file, recovery);
    recovery.lastLog = chosen;
}

// The base block after a replay: clean at the last sequence, as large as the last entry says.
void settleBaseBlock(std::vector<std::uint8_t>& file, const LogEntry& last, bool newFormat)
{
    ByteWriter writer{std::span(file).first(B::kSize)};
    writer.u32(B::kPrimarySequence, last.sequence);
    writer.u32(B::kSecondarySequence, last.sequence);
    writer.u32(B::kBinsSize, last.binsSize);
    writer.u32(B::kFileType, 0);
    if (newFormat) {
        const std::uint32_t flags = ByteView(file).u32(B::kFlags);
        writer.u32(B::kFlags, (flags & ~1u) | (last.flags & 1u));
    }
    writer.u32(B::kChecksum, BaseBlock::checksumOf(file));
    (void)writer.ok(); // the block is 4096 bytes: every field fits
}

const LogEntry* entryWithSequence(std::span<const TransactionLog> logs, int log, std::uint32_t sequence)
{
    for (const auto& entry : logs[std::size_t(log)].entries())
        if (entry.sequence == sequence)
            return &entry;
    return nullptr;
}

} // namespace

std::optional<Recovery> recover(std::vector<std::uint8_t>& file, std::span<const TransactionLog> logs)
{
    std::optional<BaseBlock> primary;
    if (file.size() >= B::kSize)
        primary = BaseBlock::parse(file);
    if (primary && !primary->checksumRight)
        primary.reset();
    if (primary && !primary->dirty())
        return Recovery{};
    Recovery recovery;
    replayNew(primary, file, logs, recovery);
    if (!recovery.replayed)
        replayOld(primary, file, logs, recovery);
    if (!recovery.replayed) {
        Error::set(Error::DirtyLog, primary ? "the hive is dirty and no transaction log beside it continues it"
                                            : "the hive's base block is damaged and no transaction log restores it");
        return std::nullopt;
    }
    const auto& log = logs[std::size_t(recovery.lastLog)];
    settleBaseBlock(file, *entryWithSequence(logs, recovery.lastLog, recovery.sequence), log.newFormat());
    std::sort(recovery.pages.begin(), recovery.pages.end());
    recovery.pages.erase(std::unique(recovery.pages.begin(), recovery.pages.end()), recovery.pages.end());
    return recovery;
}

} // namespace Platform::Hive
