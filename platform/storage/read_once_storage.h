#pragma once
// A read-only look at a storage that reads each sector from it at most once and serves repeats
// from memory: the detectors of every family looking at the same first sectors cost one read of
// each. Meant for short looks such as a probe; memory is bounded by maxSectors, beyond which
// reads pass through uncached.

#include "platform/storage/storage.h"

#include <unordered_map>
#include <vector>

namespace Platform {

class ReadOnceStorage : public Object, public virtual Interfaces::Storage {
public:
    explicit ReadOnceStorage(Ref<Interfaces::Storage> base, std::size_t maxSectors = 256)
        : base_(std::move(base)), maxSectors_(maxSectors)
    {
    }

    std::uint32_t elementSize() const override { return base_->elementSize(); }
    std::uint64_t elementCount() const override { return base_->elementCount(); }
    std::uint64_t read(std::uint64_t index, std::uint64_t count, void* buffer) override;
    // A look never writes: 0 with Error ReadOnly.
    std::uint64_t write(std::uint64_t index, std::uint64_t count, const void* buffer) override;
    bool flush() override { return true; }

private:
    // Reads [index, index + count) from the base into the cache; false when the read fails.
    bool fill(std::uint64_t index, std::uint64_t count);

    Ref<Interfaces::Storage> base_;
    std::size_t maxSectors_;
    std::unordered_map<std::uint64_t, std::vector<std::uint8_t>> sectors_;
};

} // namespace Platform
