#pragma once
// A storage that remembers what each sector held before a change first wrote it, so that a change
// whose write fails part-way can be taken back: the structure is then old again, not half new.
// Reads pass through; the old contents are kept in memory within the process's memory budget and
// in a spill file beyond it. Over a cached block device, a sector the cache has not changed is
// not copied: the cache keeps the disk's content of what it changes, and puts it back.

#include "platform/storage/cached_storage.h"
#include "platform/storage/memory_budget.h"
#include "platform/storage/sector_set.h"
#include "platform/storage/spill_file.h"
#include "platform/storage/storage.h"

#include <functional>
#include <memory>
#include <vector>

namespace Platform {

class UndoStorage : public Object, public virtual Interfaces::Storage {
public:
    explicit UndoStorage(Ref<Interfaces::Storage> base);
    ~UndoStorage() override;
    UndoStorage(const UndoStorage&) = delete;
    UndoStorage& operator=(const UndoStorage&) = delete;

    std::uint32_t elementSize() const override { return base_->elementSize(); }
    std::uint64_t elementCount() const override { return base_->elementCount(); }
    std::uint64_t read(std::uint64_t index, std::uint64_t count, void* buffer) override
    {
        return base_->read(index, count, buffer);
    }
    // Keeps the old contents of the sectors not written before in this change, then writes; 0
    // (nothing written) when the old contents cannot be read.
    std::uint64_t write(std::uint64_t index, std::uint64_t count, const void* buffer) override;
    bool flush() override { return base_->flush(); }
    std::string partitionTableChanged() override { return base_->partitionTableChanged(); }

    enum class Outcome { Done, NothingWritten, PutBack, NotAllPutBack };
    // Runs change (which writes through this storage) as one change: when it succeeds its old
    // contents are dropped; when it fails, what it wrote is put back, and the outcome says how
    // far that got.
    Outcome run(const std::function<bool()>& change);

    // Writes back what the sectors held before the change, the latest written first; false when
    // a sector could not be restored. The change is over either way.
    bool rollback();
    // The change is complete (or a new one begins): the old contents are dropped.
    void keep();
    std::uint64_t savedSectors() const { return saved_.size(); }
    const Ref<Interfaces::Storage>& base() const { return base_; }

private:
    struct Saved {
        std::uint64_t index;
        std::uint64_t count;
        std::vector<std::uint8_t> bytes; // empty while in the spill file
        std::int64_t slot;
    };

    bool save(std::uint64_t index, std::uint64_t count);
    // Copies the old contents of [first, end) into runs.
    bool copy(std::uint64_t first, std::uint64_t end);
    void makeRoom();

    Ref<Interfaces::Storage> base_;
    CacheBeneath cache_;
    std::uint64_t cacheGeneration_ = 0; // the cache's, when this change began
    std::vector<Saved> runs_;
    SectorSet saved_;
    SectorSet unchangedInCache_; // put back by the cache, not from a copy
    std::unique_ptr<SpillFile> spill_;
    bool spillFailed_ = false;
    MemoryBudget::ColdHolder cold_{[this] { makeRoom(); }};
};

} // namespace Platform
