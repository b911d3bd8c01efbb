#include "platform/storage/cached_storage.h"

#include "platform/storage/undo_storage.h"
#include "platform/storage/window_storage.h"

#include "platform/core/error.h"
#include "platform/storage/memory_budget.h"
#include "platform/storage/spill_file.h"

#include <algorithm>
#include <cstring>

namespace Platform {

namespace {

// Base reads and writes move at most this much at a time.
constexpr std::size_t kMaxTransferBytes = std::size_t(1) << 20;

std::unique_ptr<std::uint8_t[]> copyOf(const std::uint8_t* bytes, std::size_t size)
{
    auto copy = std::make_unique_for_overwrite<std::uint8_t[]>(size);
    std::memcpy(copy.get(), bytes, size);
    return copy;
}

} // namespace

StorageCounters StorageCounters::operator-(const StorageCounters& before) const
{
    return {readCalls - before.readCalls,
            sectorsRead - before.sectorsRead,
            writeCalls - before.writeCalls,
            sectorsWritten - before.sectorsWritten,
            bytesWritten - before.bytesWritten,
            retriedSectors - before.retriedSectors,
            flushes - before.flushes};
}

CachedStorage::CachedStorage(Ref<Interfaces::Storage> base, std::size_t memoryLimit)
    : base_(std::move(base)), memoryLimit_(memoryLimit)
{
}

CachedStorage::~CachedStorage()
{
    MemoryBudget::account(-std::ptrdiff_t(memoryInUse_));
}

void CachedStorage::take(std::size_t bytes)
{
    memoryInUse_ += bytes;
    MemoryBudget::account(std::ptrdiff_t(bytes));
}

void CachedStorage::giveBack(std::size_t bytes)
{
    memoryInUse_ -= bytes;
    MemoryBudget::account(-std::ptrdiff_t(bytes));
}

bool CachedStorage::overLimit() const
{
    return memoryInUse_ > memoryLimit_ || MemoryBudget::exceeded();
}

std::uint64_t CachedStorage::chunkCount() const
{
    return (elementCount() + kChunkSectors - 1) / kChunkSectors;
}

std::uint64_t CachedStorage::sectorsIn(std::uint64_t chunk) const
{
    return std::min(kChunkSectors, elementCount() - chunk * kChunkSectors);
}

void CachedStorage::touch(std::uint64_t index, Chunk& chunk)
{
    if (!chunk.inLru)
        return;
    lru_.splice(lru_.end(), lru_, chunk.lru);
    (void)index;
}

bool CachedStorage::loadRange(std::uint64_t first, std::uint64_t last)
{
    const std::size_t size = elementSize();
    const std::uint64_t maxChunks = std::max<std::uint64_t>(1, kMaxTransferBytes / (kChunkSectors * size));
    std::vector<std::uint8_t> buffer;
    std::uint64_t chunk = first;
    while (chunk <= last) {
        if (const auto it = chunks_.find(chunk); it != chunks_.end()) {
            if (!load(chunk))
                return false;
            ++chunk;
            continue;
        }
        // A run of chunks nobody has loaded: one read.
        std::uint64_t end = chunk + 1;
        while (end <= last && end - chunk < maxChunks && !chunks_.contains(end))
            ++end;
        const std::uint64_t firstSector = chunk * kChunkSectors;
        const std::uint64_t sectors = std::min(end * kChunkSectors, elementCount()) - firstSector;
        buffer.resize(std::size_t(sectors) * size);
        ++counters_.readCalls;
        const std::uint64_t got = base_->read(firstSector, sectors, buffer.data());
        counters_.sectorsRead += got;
        for (std::uint64_t c = chunk; c < end; ++c) {
            const std::uint64_t offset = (c - chunk) * kChunkSectors;
            if (offset + sectorsIn(c) > got)
                break;
            Chunk& loaded = chunks_[c];
            loaded.data = copyOf(buffer.data() + offset * size, chunkBytes(c));
            loaded.lru = lru_.insert(lru_.end(), c);
            loaded.inLru = true;
            take(chunkBytes(c));
        }
        if (got < sectors)
            return false;
        chunk = end;
    }
    return true;
}

CachedStorage::Chunk* CachedStorage::load(std::uint64_t index)
{
    auto it = chunks_.find(index);
    if (it == chunks_.end()) {
        if (!loadRange(index, index))
            return nullptr;
        it = chunks_.find(index);
        return it == chunks_.end() ? nullptr : &it->second;
    }
    Chunk& chunk = it->second;
    if (!chunk.data) { // spilled: back from the temporary file
        const std::size_t bytes = chunkBytes(index);
        chunk.data = std::make_unique_for_overwrite<std::uint8_t[]>(bytes);
        const bool hasOriginal = chunk.dirty.any();
        if (hasOriginal)
            chunk.original = std::make_unique_for_overwrite<std::uint8_t[]>(bytes);
        if (!spillFile_->load(chunk.spillSlot, {chunk.data.get(), bytes},
                              hasOriginal ? std::span<std::uint8_t>(chunk.original.get(), bytes)
                                          : std::span<std::uint8_t>())) {
            markBroken("a change kept in the temporary folder could not be read back");
            chunk.data.reset();
            chunk.original.reset();
            return nullptr;
        }
        chunk.spillSlot = -1;
        --spilledChunks_;
        take(hasOriginal ? 2 * bytes : bytes);
    }
    touch(index, chunk);
    return &chunk;
}

std::uint64_t CachedStorage::read(std::uint64_t index, std::uint64_t count, void* buffer)
{
    if (index >= elementCount())
        return 0;
    count = std::min(count, elementCount() - index);
    const std::size_t size = elementSize();
    auto* out = static_cast<std::uint8_t*>(buffer);
    std::uint64_t done = 0;
    while (done < count) {
        const std::uint64_t sector = index + done;
        const std::uint64_t chunkIndex = sector / kChunkSectors;
        // Load ahead in groups, so that a long read is a few long reads of the disk.
        const std::uint64_t lastChunk = (index + count - 1) / kChunkSectors;
        const std::uint64_t groupEnd = std::min(lastChunk, chunkIndex + kMaxTransferBytes / (kChunkSectors * size));
        loadRange(chunkIndex, groupEnd);
        for (std::uint64_t c = chunkIndex; c <= groupEnd && done < count; ++c) {
            Chunk* chunk = load(c);
            if (!chunk)
                return done;
            const std::uint64_t at = (index + done) - c * kChunkSectors;
            const std::uint64_t take = std::min(sectorsIn(c) - at, count - done);
            std::memcpy(out + done * size, chunk->data.get() + at * size, std::size_t(take) * size);
            done += take;
        }
        makeRoom();
    }
    return done;
}

void CachedStorage::markDirty(std::uint64_t index, Chunk& chunk, std::uint64_t sector)
{
    if (chunk.dirty.none() && !chunk.original) {
        chunk.original = copyOf(chunk.data.get(), chunkBytes(index));
        take(chunkBytes(index));
        if (chunk.inLru) {
            lru_.erase(chunk.lru);
            chunk.inLru = false;
        }
    }
    chunk.dirty.set(sector);
}

std::uint64_t CachedStorage::write(std::uint64_t index, std::uint64_t count, const void* buffer)
{
    if (broken_) {
        Error::set(Error::DeviceBroken, brokenReason_);
        return 0;
    }
    if (index >= elementCount())
        return 0;
    count = std::min(count, elementCount() - index);
    const std::size_t size = elementSize();
    const auto* in = static_cast<const std::uint8_t*>(buffer);
    std::uint64_t done = 0;
    while (done < count) {
        const std::uint64_t chunkIndex = (index + done) / kChunkSectors;
        Chunk* chunk = load(chunkIndex);
        if (!chunk)
            return done;
        const std::uint64_t at = (index + done) - chunkIndex * kChunkSectors;
        const std::uint64_t take = std::min(sectorsIn(chunkIndex) - at, count - done);
        for (std::uint64_t i = 0; i < take; ++i) {
            std::uint8_t* target = chunk->data.get() + (at + i) * size;
            const std::uint8_t* source = in + (done + i) * size;
            // A sector written with what it holds is no change.
            if (std::memcmp(target, source, size) == 0)
                continue;
            markDirty(chunkIndex, *chunk, at + i);
            std::memcpy(target, source, size);
        }
        done += take;
        makeRoom();
    }
    return done;
}

std::string CachedStorage::partitionTableChanged()
{
    tableChanged_ = true;
    return {};
}

void CachedStorage::dropClean(std::uint64_t index)
{
    const auto it = chunks_.find(index);
    lru_.erase(it->second.lru);
    giveBack(chunkBytes(index));
    chunks_.erase(it);
}

bool CachedStorage::spill(std::uint64_t index, Chunk& chunk)
{
    const std::size_t bytes = chunkBytes(index);
    if (!spillFile_)
        spillFile_ = std::make_unique<SpillFile>(2 * kChunkSectors * elementSize());
    const std::int64_t slot = spillFile_->store(
        {chunk.data.get(), bytes},
        chunk.original ? std::span<const std::uint8_t>(chunk.original.get(), bytes) : std::span<const std::uint8_t>());
    if (slot < 0)
        return false;
    giveBack(chunk.original ? 2 * bytes : bytes);
    chunk.data.reset();
    chunk.original.reset();
    chunk.spillSlot = slot;
    ++spilledChunks_;
    return true;
}

// What other holders keep only for a failure goes first, then clean chunks, the least recently
// used of them; then changed chunks move to the temporary file. When that cannot be written,
// memory goes over the limit rather than the run failing.
void CachedStorage::makeRoom()
{
    MemoryBudget::releaseCold();
    while (overLimit() && !lru_.empty())
        dropClean(lru_.front());
    if (!overLimit())
        return;
    for (auto& [index, chunk] : chunks_) {
        if (!overLimit())
            return;
        if (chunk.data && !chunk.inLru && !spill(index, chunk))
            return;
    }
}

void CachedStorage::markBroken(std::string reason)
{
    broken_ = true;
    brokenReason_ = std::move(reason);
}

// One write of a run; when it fails, the run again sector by sector, so that one bad sector does
// not fail its neighbours. A sector that still fails breaks the storage.
bool CachedStorage::writeRun(std::uint64_t first, std::uint64_t count, const std::uint8_t* bytes)
{
    ++counters_.writeCalls;
    const std::uint64_t written = base_->write(first, count, bytes);
    counters_.sectorsWritten += written;
    counters_.bytesWritten += written * elementSize();
    if (written == count)
        return true;
    const std::size_t size = elementSize();
    for (std::uint64_t i = written; i < count; ++i) {
        ++counters_.writeCalls;
        ++counters_.retriedSectors;
        if (base_->write(first + i, 1, bytes + i * size) != 1) {
            const std::string cause = Error::text().empty() ? "the device reported an error" : Error::text();
            markBroken("sector " + std::to_string(first + i) + " could not be written (" + cause +
                       "); nothing more is written to this disk");
            return false;
        }
        ++counters_.sectorsWritten;
        counters_.bytesWritten += size;
    }
    return true;
}

std::uint64_t CachedStorage::changedSectors() const
{
    std::uint64_t count = 0;
    for (const auto& [index, chunk] : chunks_)
        count += chunk.dirty.count();
    return count;
}

bool CachedStorage::changed(std::uint64_t sector) const
{
    const auto found = chunks_.find(sector / kChunkSectors);
    return found != chunks_.end() && found->second.dirty[sector % kChunkSectors];
}

bool CachedStorage::revert(std::uint64_t first, std::uint64_t count)
{
    const std::size_t size = elementSize();
    for (std::uint64_t sector = first; sector < first + count;) {
        const std::uint64_t index = sector / kChunkSectors;
        const std::uint64_t end = std::min(first + count, (index + 1) * kChunkSectors);
        const auto found = chunks_.find(index);
        if (found != chunks_.end() && found->second.dirty.any()) {
            Chunk* chunk = load(index);
            if (!chunk)
                return false;
            for (std::uint64_t s = sector; s < end; ++s) {
                const std::uint64_t at = s % kChunkSectors;
                if (!chunk->dirty[at])
                    continue;
                std::memcpy(chunk->data.get() + at * size, chunk->original.get() + at * size, size);
                chunk->dirty.reset(at);
            }
            if (chunk->dirty.none())
                unchange(index, *chunk);
        }
        sector = end;
    }
    makeRoom();
    return true;
}

// A chunk that holds the disk's content again: its old copy goes, and it may be dropped.
void CachedStorage::unchange(std::uint64_t index, Chunk& chunk)
{
    chunk.original.reset();
    giveBack(chunkBytes(index));
    if (!chunk.overlay && !chunk.inLru) {
        chunk.lru = lru_.insert(lru_.end(), index);
        chunk.inLru = true;
    }
}

void CachedStorage::discardChanges()
{
    for (auto& [index, chunk] : chunks_) {
        if (chunk.dirty.none() || !load(index))
            continue;
        std::memcpy(chunk.data.get(), chunk.original.get(), chunkBytes(index));
        chunk.dirty.reset();
        unchange(index, chunk);
    }
    ++generation_;
    tableChanged_ = false;
    makeRoom();
}

template <typename Visit>
bool CachedStorage::changedRunsOf(std::uint64_t index, Visit visit)
{
    Chunk* chunk = load(index);
    if (!chunk)
        return false;
    const std::size_t size = elementSize();
    const auto changed = [&](std::uint64_t i) {
        return chunk->dirty[i] &&
               std::memcmp(chunk->data.get() + i * size, chunk->original.get() + i * size, size) != 0;
    };
    const std::uint64_t sectors = sectorsIn(index);
    for (std::uint64_t s = 0; s < sectors;) {
        if (!changed(s)) {
            ++s;
            continue;
        }
        std::uint64_t end = s + 1;
        while (end < sectors && changed(end))
            ++end;
        if (!visit(index * kChunkSectors + s, end - s, chunk->original.get() + s * size, chunk->data.get() + s * size))
            return false;
        s = end;
    }
    return true;
}

std::vector<std::uint64_t> CachedStorage::changedChunks() const
{
    std::vector<std::uint64_t> changed;
    for (const auto& [index, chunk] : chunks_)
        if (chunk.dirty.any())
            changed.push_back(index);
    return changed;
}

bool CachedStorage::recordChanges()
{
    std::string problem;
    const std::size_t size = elementSize();
    bool recorded = true;
    for (const std::uint64_t index : changedChunks()) {
        recorded = changedRunsOf(index, [&](std::uint64_t first, std::uint64_t count, const std::uint8_t* before,
                                            const std::uint8_t* after) {
            const auto bytes = std::size_t(count) * size;
            return observer_->record({first, count, {before, bytes}, {after, bytes}}, problem);
        });
        if (!recorded)
            break;
        makeRoom();
    }
    recorded = recorded && observer_->commitRecords(problem);
    if (!recorded && !broken_)
        markBroken("the changes could not be recorded before writing them (" +
                   (problem.empty() ? std::string("no reason given") : problem) +
                   "); nothing more is written to this disk");
    return recorded;
}

void CachedStorage::settle(std::uint64_t index)
{
    const auto it = chunks_.find(index);
    Chunk& chunk = it->second;
    if (chunk.spillSlot >= 0) { // only the disk holds it now
        spillFile_->release(chunk.spillSlot);
        --spilledChunks_;
        chunks_.erase(it);
        return;
    }
    chunk.dirty.reset();
    chunk.original.reset();
    giveBack(chunkBytes(index));
    if (observer_ && observer_->withholdsWrites()) {
        chunk.overlay = true;
    } else if (!chunk.overlay) {
        chunk.lru = lru_.insert(lru_.end(), index);
        chunk.inLru = true;
    }
}

// Runs next to each other, across chunks, go out as one write of up to kMaxTransferBytes.
bool CachedStorage::writeChanges()
{
    const std::size_t size = elementSize();
    std::vector<std::uint8_t> buffer;
    buffer.reserve(kMaxTransferBytes);
    std::uint64_t bufferFirst = 0;
    std::vector<std::uint64_t> pending; // chunks whose last runs are in the buffer
    const auto writeBuffer = [&] {
        const bool ok = buffer.empty() || writeRun(bufferFirst, buffer.size() / size, buffer.data());
        buffer.clear();
        if (ok)
            for (const std::uint64_t index : pending)
                settle(index);
        pending.clear();
        return ok;
    };
    for (const std::uint64_t index : changedChunks()) {
        const bool ok = changedRunsOf(
            index, [&](std::uint64_t first, std::uint64_t count, const std::uint8_t*, const std::uint8_t* bytes) {
                const bool adjacent = !buffer.empty() && bufferFirst + buffer.size() / size == first;
                if (!adjacent || buffer.size() + count * size > kMaxTransferBytes) {
                    if (!writeBuffer())
                        return false;
                    bufferFirst = first;
                }
                buffer.insert(buffer.end(), bytes, bytes + count * size);
                return true;
            });
        if (!ok)
            return false;
        pending.push_back(index);
        makeRoom();
    }
    return writeBuffer();
}

std::string CachedStorage::writeBack(std::string* tableNote)
{
    if (broken_)
        return brokenReason_;
    if (changedSectors() == 0 && !tableChanged_)
        return {};
    ++generation_;
    if (observer_ && !recordChanges())
        return brokenReason_;
    const bool withhold = observer_ && observer_->withholdsWrites();
    if (withhold) {
        for (const std::uint64_t index : changedChunks()) {
            if (load(index))
                settle(index);
            makeRoom(); // what the run holds back may be more than memory takes: it spills
        }
        tableChanged_ = false;
        return brokenReason_;
    }
    const std::uint64_t writtenBefore = counters_.sectorsWritten;
    if (!writeChanges())
        return brokenReason_;
    if (counters_.sectorsWritten == writtenBefore && !tableChanged_)
        return {}; // every change was taken back within the step
    ++counters_.flushes;
    if (!base_->flush()) {
        markBroken("the disk did not confirm the writes (flush failed); nothing more is written to this disk");
        return brokenReason_;
    }
    if (tableChanged_) {
        tableChanged_ = false;
        const std::string note = base_->partitionTableChanged();
        if (tableNote)
            *tableNote = note;
    }
    return {};
}

bool writesWaitForWriteBack(const Interfaces::Storage& storage)
{
    if (dynamic_cast<const CachedStorage*>(&storage))
        return true;
    if (const auto* window = dynamic_cast<const WindowStorage*>(&storage))
        return writesWaitForWriteBack(*window->base());
    if (const auto* undo = dynamic_cast<const UndoStorage*>(&storage))
        return undo->base() && writesWaitForWriteBack(*undo->base());
    return false;
}

CacheBeneath cacheBeneath(Interfaces::Storage& storage)
{
    if (auto* cache = dynamic_cast<CachedStorage*>(&storage))
        return {cache, 0};
    if (auto* window = dynamic_cast<WindowStorage*>(&storage)) {
        CacheBeneath beneath = cacheBeneath(*window->base());
        beneath.offset += window->first();
        return beneath;
    }
    return {};
}

} // namespace Platform
