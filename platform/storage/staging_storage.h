#pragma once
// A storage that keeps every write in memory until commit: reads see the staged sectors, the base
// sees nothing until the whole change has been worked out. A change that fails part-way is
// dropped without a byte written.

#include "platform/storage/storage.h"

#include <bitset>
#include <map>
#include <memory>
#include <vector>

namespace Platform {

class StagingStorage : public Object, public virtual Interfaces::Storage {
public:
    explicit StagingStorage(Ref<Interfaces::Storage> base) : base_(std::move(base)) {}

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

private:
    static constexpr std::uint64_t kPageSectors = 64;

    // Staged sectors are kept in pages; a page's mask says which of its sectors are staged.
    struct Page {
        std::uint8_t* bytes = nullptr; // kPageSectors sectors inside a slab
        std::bitset<kPageSectors> staged;
    };

    std::uint8_t* allocatePage();

    bool commitRange(std::uint64_t from, std::uint64_t to, std::uint64_t skipFirst, std::uint64_t skipEnd);

    Ref<Interfaces::Storage> base_;
    std::map<std::uint64_t, Page> pages_;
    // Page memory comes from large slabs: staging a big change must not churn the allocator.
    std::vector<std::unique_ptr<std::uint8_t[]>> slabs_;
    std::size_t slabUsed_ = 0;
    std::uint64_t writeCalls_ = 0;
};

} // namespace Platform
