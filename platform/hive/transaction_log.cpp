#include "platform/hive/transaction_log.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/hive/layout.h"
#include "platform/hive/marvin32.h"

#include <algorithm>
#include <cstring>

namespace Platform::Hive {

namespace L = Layout::Log;

namespace {

// One new-format entry at offset, checked whole; nothing where the run of entries ends.
std::optional<LogEntry> entryAt(std::span<const std::uint8_t> bytes, std::size_t offset, std::uint32_t& sequence)
{
    if (bytes.size() - offset < L::kEntryPageRefs || std::memcmp(bytes.data() + offset, L::kEntrySignature, 4) != 0)
        return std::nullopt;
    ByteView view(bytes.subspan(offset));
    const std::uint32_t size = view.u32(L::kEntrySize);
    LogEntry entry;
    entry.flags = view.u32(L::kEntryFlags);
    entry.sequence = sequence = view.u32(L::kEntrySequence);
    entry.binsSize = view.u32(L::kEntryBinsSize);
    const std::uint32_t count = view.u32(L::kEntryPageCount);
    if (!view.ok() || size < L::kEntryPageRefs || size % L::kSector != 0 || size > bytes.size() - offset ||
        entry.binsSize == 0 || entry.binsSize % Layout::kPageSize != 0 || count > (size - L::kEntryPageRefs) / 8)
        return std::nullopt;
    const auto whole = bytes.subspan(offset, size);
    if (marvin32(whole.subspan(L::kEntryPageRefs), L::kHashSeed) != view.u64(L::kEntryDataHash) ||
        marvin32(whole.first(L::kEntryHeaderHash), L::kHashSeed) != view.u64(L::kEntryHeaderHash))
        return std::nullopt;
    std::size_t data = L::kEntryPageRefs + std::size_t(count) * 8;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t pageOffset = view.u32(L::kEntryPageRefs + i * 8);
        const std::uint32_t pageSize = view.u32(L::kEntryPageRefs + i * 8 + 4);
        if (pageSize == 0 || pageSize % Layout::kPageSize != 0 || pageOffset % Layout::kPageSize != 0 ||
            pageSize > size - data || pageOffset > entry.binsSize || pageSize > entry.binsSize - pageOffset)
            return std::nullopt;
        entry.pages.push_back({pageOffset, whole.subspan(data, pageSize)});
        data += pageSize;
    }
    if (!view.ok())
        return std::nullopt;
    return entry;
}

} // namespace

TransactionLog TransactionLog::read(std::span<const std::uint8_t> bytes)
{
    TransactionLog log;
    if (bytes.size() < L::kSector)
        return log;
    log.base_ = BaseBlock::parse(bytes.first(L::kSector));
    if (!log.base_ || !log.base_->checksumRight)
        return log;
    log.baseSector_ = bytes.first(L::kSector);
    log.highest_ = std::max(log.base_->primarySequence, log.base_->secondarySequence);
    ByteView view(log.baseSector_);
    log.timestamp_ = view.u64(Layout::BaseBlock::kTimestamp);
    if (!view.ok())
        return log;
    log.newFormat_ = log.base_->fileType == L::kTypeNew;
    if (log.newFormat_)
        log.readNewEntries(bytes);
    else if (log.base_->fileType == L::kTypeOld || log.base_->fileType == L::kTypeOldNt)
        log.readOldPages(bytes);
    return log;
}

// Entries from the second sector on, the first carrying the base block's sequence number and each
// the next; a bad entry or a gap ends the run, and what came before it stays.
void TransactionLog::readNewEntries(std::span<const std::uint8_t> bytes)
{
    std::uint32_t expected = base_->primarySequence;
    bool inRun = true;
    for (std::size_t offset = L::kSector; offset + L::kEntryPageRefs <= bytes.size();) {
        std::uint32_t sequence = 0;
        auto entry = entryAt(bytes, offset, sequence);
        if (sequence)
            highest_ = std::max(highest_, sequence);
        if (!entry)
            break;
        if (inRun && entry->sequence == expected) {
            ++expected;
            entries_.push_back(std::move(*entry));
        } else {
            inRun = false;
        }
        ByteView view(bytes.subspan(offset));
        const std::uint32_t size = view.u32(L::kEntrySize);
        if (!view.ok())
            break;
        offset += size;
    }
}

// The bitmap of dirty 512-byte pages in the second sector, the pages from the next sector on.
void TransactionLog::readOldPages(std::span<const std::uint8_t> bytes)
{
    if (base_->primarySequence != base_->secondarySequence || base_->binsSize == 0 ||
        base_->binsSize % Layout::kPageSize != 0)
        return;
    const std::size_t bits = base_->binsSize / L::kOldPage;
    const std::size_t bitmapEnd = L::kSector + 4 + (bits + 7) / 8;
    if (bytes.size() < bitmapEnd || std::memcmp(bytes.data() + L::kSector, L::kDirtySignature, 4) != 0)
        return;
    LogEntry entry;
    entry.sequence = base_->primarySequence;
    entry.binsSize = base_->binsSize;
    std::size_t data = (bitmapEnd + L::kSector - 1) / L::kSector * L::kSector;
    for (std::size_t bit = 0; bit < bits; ++bit) {
        if (!(bytes[L::kSector + 4 + bit / 8] >> (bit % 8) & 1))
            continue;
        if (bytes.size() - data < L::kOldPage)
            return; // the log ends before its pages do: nothing of it is used
        entry.pages.push_back({std::uint32_t(bit * L::kOldPage), bytes.subspan(data, L::kOldPage)});
        data += L::kOldPage;
    }
    entries_.push_back(std::move(entry));
}

} // namespace Platform::Hive
