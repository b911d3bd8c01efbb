#pragma once
// A storage that keeps every write in memory until commit: reads see the staged sectors, the base
// sees nothing until the whole change has been worked out. A change that fails part-way is
// dropped without a byte written.

#include "platform/storage/storage.h"

#include <map>
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

    // Writes the staged sectors that differ from the base, in ascending order, except the sectors
    // from lastFirst to lastEnd (exclusive), which go last: the structure that makes the rest
    // valid. false when a write fails.
    bool commit(std::uint64_t lastFirst = 0, std::uint64_t lastEnd = 0);
    std::size_t stagedSectors() const { return staged_.size(); }

private:
    bool writeOne(std::uint64_t sector, const std::vector<std::uint8_t>& bytes);

    Ref<Interfaces::Storage> base_;
    std::map<std::uint64_t, std::vector<std::uint8_t>> staged_;
};

} // namespace Platform
