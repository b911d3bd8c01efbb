#pragma once
// The cached block device: a target disk seen through chunks kept in memory. Reads load whole
// chunks on demand and keep them, so that a run reads each sector from the disk once. Writes land
// in the chunks and reach the disk at writeBack(): only sectors whose content changed, each once,
// in ascending order, followed by one flush. A run of sectors whose write fails is retried sector
// by sector; a sector that still cannot be written marks the storage broken, and every later
// write fails with the reason. Memory stays under a limit: clean chunks are dropped first (least
// recently used), and changed chunks beyond the limit move to a temporary file until the
// write-back.

#include "platform/storage/storage.h"

#include <bitset>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace Platform {

class SpillFile;

struct StorageCounters {
    std::uint64_t readCalls = 0;   // reads of the base storage
    std::uint64_t sectorsRead = 0; // sectors those reads returned
    std::uint64_t writeCalls = 0;  // writes to the base storage, retries included
    std::uint64_t sectorsWritten = 0;
    std::uint64_t bytesWritten = 0;
    std::uint64_t retriedSectors = 0; // sectors written one by one after a failed run
    std::uint64_t flushes = 0;

    StorageCounters operator-(const StorageCounters& before) const;
};

// Sees what a write-back is about to write, before a sector of it is written: the run journal
// keeps the old content, a dry run keeps the new content instead of writing it.
class WriteBackObserver : public virtual RefCount {
public:
    struct Run {
        std::uint64_t first;
        std::uint64_t count;
        std::span<const std::uint8_t> before;
        std::span<const std::uint8_t> after;
    };
    // Every run, in ascending order. False stops the write-back before a sector is written.
    virtual bool record(const Run& run, std::string& problem) = 0;
    // All runs recorded: make them durable. False stops the write-back before a sector is written.
    virtual bool commitRecords(std::string& problem) = 0;
    // True when the runs must not reach the disk (a dry run): they stay in memory as the disk's
    // new content for the rest of the run.
    virtual bool withholdsWrites() const { return false; }
};

class CachedStorage : public Object, public virtual Interfaces::Storage {
public:
    static constexpr std::uint64_t kChunkSectors = 128;
    static constexpr std::size_t kDefaultMemoryLimit = std::size_t(256) << 20;

    // memoryLimit counts the chunks' bytes (a changed chunk counts twice: its new and old content).
    explicit CachedStorage(Ref<Interfaces::Storage> base, std::size_t memoryLimit = kDefaultMemoryLimit);
    ~CachedStorage() override;
    CachedStorage(const CachedStorage&) = delete;
    CachedStorage& operator=(const CachedStorage&) = delete;

    std::uint32_t elementSize() const override { return base_->elementSize(); }
    std::uint64_t elementCount() const override { return base_->elementCount(); }
    std::uint64_t read(std::uint64_t index, std::uint64_t count, void* buffer) override;
    // 0 with Error DeviceBroken once a write-back failed.
    std::uint64_t write(std::uint64_t index, std::uint64_t count, const void* buffer) override;
    // Changes reach the disk at writeBack(); the ordering points of the code above (a table's
    // backup before its primary, a log before its hive) are kept by the run journal instead.
    bool flush() override { return !broken_; }
    // Remembered, and passed on to the base once the new table is on it.
    std::string partitionTableChanged() override;

    // Writes every changed sector back and flushes the base. Empty when all went well; otherwise
    // what failed, and the storage is broken. The note of a table re-read goes to tableNote.
    std::string writeBack(std::string* tableNote = nullptr);
    // Forgets the changes not written back yet: reads see the disk again.
    void discardChanges();

    // For a layer above that must be able to take a change back: whether a sector differs from
    // the content the disk holds (its changes not written back yet), and putting sectors back to
    // that content. generation() moves on at each write-back and discard, after which the disk's
    // content is another one.
    bool changed(std::uint64_t sector) const;
    bool revert(std::uint64_t first, std::uint64_t count);
    std::uint64_t generation() const { return generation_; }

    void setObserver(Ref<WriteBackObserver> observer) { observer_ = std::move(observer); }
    bool broken() const { return broken_; }
    const std::string& brokenReason() const { return brokenReason_; }
    const StorageCounters& counters() const { return counters_; }
    // Sectors that differ from the disk now (not yet written back).
    std::uint64_t changedSectors() const;
    std::size_t memoryInUse() const { return memoryInUse_; }
    std::uint64_t spilledChunks() const { return spilledChunks_; }

private:
    struct Chunk {
        std::unique_ptr<std::uint8_t[]> data;     // null while spilled
        std::unique_ptr<std::uint8_t[]> original; // the disk's content, kept while dirty
        std::bitset<kChunkSectors> dirty;
        std::int64_t spillSlot = -1;
        std::list<std::uint64_t>::iterator lru; // valid while clean and in memory
        bool inLru = false;
        bool overlay = false; // holds content the disk does not have (a dry run): never dropped
    };

    void take(std::size_t bytes);
    void giveBack(std::size_t bytes);
    // Over this cache's own limit, or the process's memory budget is.
    bool overLimit() const;
    std::uint64_t chunkCount() const;
    std::uint64_t sectorsIn(std::uint64_t chunk) const;
    std::size_t chunkBytes(std::uint64_t chunk) const { return std::size_t(sectorsIn(chunk)) * elementSize(); }
    // The chunk, loaded (from the disk or the spill file); null when the disk read failed.
    Chunk* load(std::uint64_t chunk);
    // Loads the missing chunks from first to last (inclusive) with one read of the base each run.
    bool loadRange(std::uint64_t first, std::uint64_t last);
    void touch(std::uint64_t index, Chunk& chunk);
    void markDirty(std::uint64_t index, Chunk& chunk, std::uint64_t sector);
    void makeRoom();
    bool spill(std::uint64_t index, Chunk& chunk);
    void dropClean(std::uint64_t index);
    bool writeRun(std::uint64_t first, std::uint64_t count, const std::uint8_t* bytes);
    std::vector<std::uint64_t> changedChunks() const;
    // visit(first, count, before, after) for each run of changed sectors of the chunk, in
    // ascending order; false when visit is or the chunk cannot be loaded.
    template <typename Visit>
    bool changedRunsOf(std::uint64_t index, Visit visit);
    bool recordChanges();
    bool writeChanges();
    // The chunk's changes are on the disk (or, in a dry run, are the disk's content from now on).
    void settle(std::uint64_t index);
    void unchange(std::uint64_t index, Chunk& chunk);
    void markBroken(std::string reason);

    Ref<Interfaces::Storage> base_;
    std::size_t memoryLimit_;
    std::map<std::uint64_t, Chunk> chunks_;
    std::list<std::uint64_t> lru_; // clean chunks in memory, least recently used first
    std::size_t memoryInUse_ = 0;
    std::unique_ptr<SpillFile> spillFile_;
    std::uint64_t spilledChunks_ = 0;
    Ref<WriteBackObserver> observer_;
    StorageCounters counters_;
    bool tableChanged_ = false;
    std::uint64_t generation_ = 0;
    bool broken_ = false;
    std::string brokenReason_;
};

// Whether storage is a cached block device, or a window or undo layer over one: its writes stay in
// memory until the write-back at the end of the step.
bool writesWaitForWriteBack(const Interfaces::Storage& storage);

// The cached block device storage is, or is a window of, and where sector 0 of storage lies on it.
struct CacheBeneath {
    CachedStorage* cache = nullptr;
    std::uint64_t offset = 0;
};
CacheBeneath cacheBeneath(Interfaces::Storage& storage);

} // namespace Platform
