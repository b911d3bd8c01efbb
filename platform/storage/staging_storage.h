#pragma once
// A storage that keeps every write until commit: reads see the staged sectors, the base sees
// nothing until the whole change has been worked out. A change that fails part-way is dropped
// without a byte written. Staged pages beyond a memory limit wait in a temporary file, so that a
// change as large as a file system's metadata does not need as much memory.

#include "platform/storage/spill_file.h"
#include "platform/storage/storage.h"

#include <bitset>
#include <map>
#include <memory>
#include <vector>

namespace Platform {

class StagingStorage : public Object, public virtual Interfaces::Storage {
public:
    static constexpr std::size_t kDefaultMemoryLimit = std::size_t(32) << 20;

    explicit StagingStorage(Ref<Interfaces::Storage> base, std::size_t memoryLimit = kDefaultMemoryLimit);
    ~StagingStorage() override;
    StagingStorage(const StagingStorage&) = delete;
    StagingStorage& operator=(const StagingStorage&) = delete;

    std::uint32_t elementSize() const override { return base_->elementSize(); }
    std::uint64_t elementCount() const override { return base_->elementCount(); }
    std::uint64_t read(std::uint64_t index, std::uint64_t count, void* buffer) override;
    std::uint64_t write(std::uint64_t index, std::uint64_t count, const void* buffer) override;
    bool flush() override { return true; }

    // Writes the staged sectors in ascending order, in runs, except the sectors from lastFirst to
    // lastEnd (exclusive), which go last: the structure that makes the rest valid. false when a
    // write fails.
    bool commit(std::uint64_t lastFirst = 0, std::uint64_t lastEnd = 0);
    // Forgets every staged sector: the base stays as it is.
    void discard();
    std::size_t stagedSectors() const;
    // How many writes were staged so far: tells whether an operation staged anything.
    std::uint64_t writeCalls() const { return writeCalls_; }
    std::size_t memoryInUse() const { return pagesInMemory_ * pageBytes(); }
    std::uint64_t spilledPages() const { return spilledPages_; }

private:
    static constexpr std::uint64_t kPageSectors = 64;

    // Staged sectors are kept in pages; a page's mask says which of its sectors are staged. A page
    // is in memory (bytes) or in the spill file (slot).
    struct Page {
        std::unique_ptr<std::uint8_t[]> bytes;
        std::bitset<kPageSectors> staged;
        std::int64_t slot = -1;
    };

    std::size_t pageBytes() const { return std::size_t(kPageSectors) * elementSize(); }
    // The page's bytes in memory; null when they cannot be read back from the spill file.
    std::uint8_t* resident(Page& page);
    // Moves pages other than keep to the spill file until memory is under the limit.
    void makeRoom(const Page* keep);
    bool commitRange(std::uint64_t from, std::uint64_t to, std::uint64_t skipFirst, std::uint64_t skipEnd);

    Ref<Interfaces::Storage> base_;
    std::size_t memoryLimit_;
    std::map<std::uint64_t, Page> pages_;
    std::size_t pagesInMemory_ = 0;
    std::unique_ptr<SpillFile> spill_;
    std::uint64_t spilledPages_ = 0;
    bool spillFailed_ = false;
    std::uint64_t writeCalls_ = 0;
};

} // namespace Platform
