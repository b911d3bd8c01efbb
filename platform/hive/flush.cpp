#include "platform/hive/flush.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/hive/layout.h"
#include "platform/hive/marvin32.h"

#include <algorithm>

namespace Platform::Hive {

namespace {

namespace B = Layout::BaseBlock;
namespace L = Layout::Log;

bool writeAt(File& file, std::uint64_t offset, std::span<const std::uint8_t> bytes)
{
    if (!file.seek(offset) || file.write(bytes.data(), bytes.size()) != bytes.size()) {
        if (Error::get() == Error::None)
            Error::set(Error::Io, "a write to the hive stopped short");
        return false;
    }
    return true;
}

bool sync(File& file)
{
    if (file.flush())
        return true;
    if (Error::get() == Error::None)
        Error::set(Error::Io, "the hive's files could not be synced");
    return false;
}

// Runs of adjacent pages: {bins offset, length}.
std::vector<std::pair<std::uint32_t, std::uint32_t>> runsOf(const std::vector<std::uint32_t>& pages)
{
    std::vector<std::pair<std::uint32_t, std::uint32_t>> runs;
    for (const std::uint32_t page : pages) {
        if (!runs.empty() && runs.back().first + runs.back().second == page)
            runs.back().second += std::uint32_t(Layout::kPageSize);
        else
            runs.emplace_back(page, std::uint32_t(Layout::kPageSize));
    }
    return runs;
}

bool writePages(File& primary, const Hive& hive, const std::vector<std::uint32_t>& pages)
{
    const auto& bins = hive.cells().bytes();
    if (primary.size() < B::kSize + bins.size() && primary.resize(B::kSize + bins.size()) != B::kSize + bins.size()) {
        if (Error::get() == Error::None)
            Error::set(Error::NoSpace, "the hive file could not grow");
        return false;
    }
    for (const auto& [offset, length] : runsOf(pages))
        if (!writeAt(primary, B::kSize + offset, std::span(bins).subspan(offset, length)))
            return false;
    return true;
}

// The log's first sector and one entry holding the pages, numbered sequence.
std::vector<std::uint8_t> logImage(const Hive& hive, const std::vector<std::uint32_t>& pages, std::uint32_t sequence)
{
    std::vector<std::uint8_t> block = hive.baseBlockFor(sequence, sequence);
    block.resize(L::kSector);
    ByteWriter base(block);
    base.u32(B::kFileType, L::kTypeNew);
    base.u32(B::kChecksum, BaseBlock::checksumOf(block));
    const auto runs = runsOf(pages);
    const std::size_t header = L::kEntryPageRefs + 8 * runs.size();
    const std::size_t entrySize =
        (header + pages.size() * Layout::kPageSize + L::kSector - 1) / L::kSector * L::kSector;
    std::vector<std::uint8_t> image(L::kSector + entrySize, 0);
    std::copy(block.begin(), block.end(), image.begin());
    const auto entry = std::span(image).subspan(L::kSector);
    ByteWriter writer(entry);
    std::copy_n(L::kEntrySignature, 4, image.begin() + L::kSector);
    writer.u32(L::kEntrySize, std::uint32_t(entrySize));
    writer.u32(L::kEntryFlags, ByteView(hive.baseBytes()).u32(B::kFlags) & 1u);
    writer.u32(L::kEntrySequence, sequence);
    writer.u32(L::kEntryBinsSize, std::uint32_t(hive.cells().bytes().size()));
    writer.u32(L::kEntryPageCount, std::uint32_t(runs.size()));
    std::size_t data = header;
    const auto& bins = hive.cells().bytes();
    for (std::size_t i = 0; i < runs.size(); ++i) {
        writer.u32(L::kEntryPageRefs + 8 * i, runs[i].first);
        writer.u32(L::kEntryPageRefs + 8 * i + 4, runs[i].second);
        writer.bytes(data, std::span(bins).subspan(runs[i].first, runs[i].second));
        data += runs[i].second;
    }
    writer.u64(L::kEntryDataHash, marvin32(entry.subspan(L::kEntryPageRefs), L::kHashSeed));
    writer.u64(L::kEntryHeaderHash, marvin32(entry.first(L::kEntryHeaderHash), L::kHashSeed));
    (void)base.ok();
    (void)writer.ok(); // sized above for every page
    return image;
}

// Step 1: the pages a replay produced reach the primary, then its base block turns clean.
bool settleReplay(File& primary, const PendingReplay& replay)
{
    if (primary.size() < replay.fileSize && primary.resize(replay.fileSize) != replay.fileSize) {
        if (Error::get() == Error::None)
            Error::set(Error::NoSpace, "the hive file could not grow");
        return false;
    }
    for (const auto& [offset, bytes] : replay.pages)
        if (!writeAt(primary, B::kSize + offset, bytes))
            return false;
    return sync(primary) && writeAt(primary, 0, replay.baseBlock) && sync(primary);
}

// A log whose entries a crash recovery could start from, with the primary at this sequence.
bool couldReplay(const LogSlot& slot, std::uint32_t sequence)
{
    return slot.file && slot.log.newFormat() && !slot.log.entries().empty() &&
           slot.log.entries().front().sequence >= sequence;
}

} // namespace

PendingReplay PendingReplay::of(const Recovery& recovery, const std::vector<std::uint8_t>& file)
{
    PendingReplay pending;
    pending.sequence = recovery.sequence;
    pending.baseBlock.assign(file.begin(), file.begin() + B::kSize);
    pending.fileSize = file.size();
    for (const std::uint32_t page : recovery.pages) {
        const auto start = file.begin() + std::ptrdiff_t(B::kSize + page);
        pending.pages.emplace_back(page, std::vector<std::uint8_t>(start, start + Layout::kPageSize));
    }
    return pending;
}

bool flush(Hive& hive, HiveFiles& files, std::optional<PendingReplay>& pendingReplay)
{
    if (pendingReplay) {
        if (!settleReplay(*files.primary, *pendingReplay))
            return false;
        hive.setSequence(pendingReplay->sequence);
        pendingReplay.reset();
    }
    const std::vector<std::uint32_t> pages(hive.cells().changedPages().begin(), hive.cells().changedPages().end());
    if (pages.empty())
        return true;
    const std::uint32_t current = hive.base().secondarySequence;
    std::uint32_t newest = std::max(hive.base().primarySequence, current);
    for (const auto& slot : files.logs)
        newest = std::max(newest, slot.log.highestSequence());
    const std::uint32_t sequence = newest + 1;
    // The entry goes to the log with the older entries; the other must not replay before it.
    const int target = files.logs[1].log.highestSequence() < files.logs[0].log.highestSequence() ? 1 : 0;
    LogSlot& log = files.logs[std::size_t(target)];
    LogSlot& other = files.logs[std::size_t(1 - target)];
    if (couldReplay(other, current)) {
        if (other.file->resize(0) != 0 || !sync(*other.file))
            return false;
        other.log = TransactionLog{};
    }
    if (!log.file) {
        log.file = files.createLog ? files.createLog(log.name) : Ref<File>();
        if (!log.file) {
            if (Error::get() == Error::None)
                Error::set(Error::NotSupported, "the hive's transaction log cannot be created");
            return false;
        }
    }
    const auto image = logImage(hive, pages, sequence);
    if (!writeAt(*log.file, 0, image) || log.file->resize(image.size()) != image.size() || !sync(*log.file))
        return false;
    if (!writeAt(*files.primary, 0, hive.baseBlockFor(sequence, current)) || !sync(*files.primary) ||
        !writePages(*files.primary, hive, pages) || !sync(*files.primary) ||
        !writeAt(*files.primary, 0, hive.baseBlockFor(sequence, sequence)) || !sync(*files.primary))
        return false;
    hive.settle(sequence);
    log.bytes = image;
    log.log = TransactionLog::read(log.bytes);
    return true;
}

} // namespace Platform::Hive
