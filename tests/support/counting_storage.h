#pragma once
// A storage wrapper for tests and benchmarks: counts the sectors read and written and the write
// calls. It can fail every write once a budget of written sectors is used up (the write in
// progress then stops part-way, as a torn write on real hardware would, and the disk stays dead),
// or fail one chosen write call part-way and take the writes after it again (a bad sector).

#include "platform/storage/storage.h"

#include <algorithm>
#include <limits>
#include <map>
#include <vector>

namespace TestSupport {

class CountingStorage : public Platform::Object, public virtual Interfaces::Storage {
public:
    explicit CountingStorage(Platform::Ref<Interfaces::Storage> base) : base_(std::move(base)) {}

    std::uint32_t elementSize() const override { return base_->elementSize(); }
    std::uint64_t elementCount() const override { return base_->elementCount(); }
    std::uint64_t read(std::uint64_t index, std::uint64_t count, void* buffer) override
    {
        const auto done = base_->read(index, count, buffer);
        sectorsRead += done;
        for (std::uint64_t i = 0; i < done; ++i)
            mostReadsOfOneSector = std::max(mostReadsOfOneSector, ++readsOf[index + i]);
        return done;
    }
    std::uint64_t write(std::uint64_t index, std::uint64_t count, const void* buffer) override
    {
        if (writeCalls++ == failingWrite)
            count /= 2;
        const std::uint64_t allowed = std::min(count, writeBudget - sectorsWritten);
        const auto done = allowed ? base_->write(index, allowed, buffer) : 0;
        sectorsWritten += done;
        writeStarts.push_back(index);
        for (std::uint64_t i = 0; i < done; ++i)
            mostWritesOfOneSector = std::max(mostWritesOfOneSector, ++writesOf[index + i]);
        return done;
    }
    bool flush() override
    {
        ++flushes;
        return base_->flush();
    }

    std::uint64_t sectorsRead = 0;
    std::map<std::uint64_t, std::uint64_t> readsOf; // sector -> times read
    std::uint64_t mostReadsOfOneSector = 0;
    std::uint64_t sectorsWritten = 0;
    std::map<std::uint64_t, std::uint64_t> writesOf; // sector -> times written
    std::uint64_t mostWritesOfOneSector = 0;
    std::vector<std::uint64_t> writeStarts; // the first sector of each write call, in call order
    std::uint64_t flushes = 0;
    std::uint64_t writeBudget = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t writeCalls = 0;
    std::uint64_t failingWrite = std::numeric_limits<std::uint64_t>::max(); // counted from 0

private:
    Platform::Ref<Interfaces::Storage> base_;
};

} // namespace TestSupport
