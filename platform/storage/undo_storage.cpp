#include "platform/storage/undo_storage.h"

#include "platform/storage/memory_budget.h"
#include "platform/storage/spill_file.h"

#include <algorithm>
#include <cstring>

namespace Platform {

namespace {
// Old contents wait in the spill file in slots of this size; longer runs are kept as several.
constexpr std::size_t kSlotBytes = std::size_t(1) << 20;
} // namespace

UndoStorage::UndoStorage(Ref<Interfaces::Storage> base)
    : base_(std::move(base)), cache_(base_ ? cacheBeneath(*base_) : CacheBeneath{})
{
}

UndoStorage::~UndoStorage()
{
    keep();
}

// Over the process's memory budget: the oldest kept contents go to the spill file first. When it
// cannot take them, they stay: memory over the budget is better than no way back.
void UndoStorage::makeRoom()
{
    for (auto& run : runs_) {
        if (!MemoryBudget::exceeded() || spillFailed_)
            return;
        if (run.bytes.empty())
            continue;
        if (!spill_)
            spill_ = std::make_unique<SpillFile>(kSlotBytes);
        run.slot = spill_->store(run.bytes);
        if (run.slot < 0) {
            spillFailed_ = true;
            return;
        }
        MemoryBudget::account(-std::ptrdiff_t(run.bytes.size()));
        std::vector<std::uint8_t>().swap(run.bytes); // assigning {} would keep the capacity
    }
}

// Keeps the old contents of the sectors of [index, index + count) not kept yet, read in one go.
bool UndoStorage::save(std::uint64_t index, std::uint64_t count)
{
    std::uint64_t first = index;
    while (first < index + count && saved_.contains(first))
        ++first;
    if (first == index + count)
        return true;
    std::uint64_t last = index + count;
    while (last > first && saved_.contains(last - 1))
        --last;
    if (saved_.size() == 0 && cache_.cache)
        cacheGeneration_ = cache_.cache->generation();
    if (!cache_.cache) {
        if (!copy(first, last))
            return false;
    } else {
        // Runs of sectors the cache has changed already are copied; the others it puts back.
        for (std::uint64_t at = first; at < last;) {
            const bool changed = cache_.cache->changed(cache_.offset + at);
            std::uint64_t end = at + 1;
            while (end < last && cache_.cache->changed(cache_.offset + end) == changed)
                ++end;
            if (changed && !copy(at, end))
                return false;
            if (!changed)
                unchangedInCache_.insert(at, end);
            at = end;
        }
    }
    // Sectors inside the run that were kept earlier keep their older contents: restoring the
    // runs newest first puts those back last.
    saved_.insert(first, last);
    makeRoom();
    return true;
}

bool UndoStorage::copy(std::uint64_t first, std::uint64_t end)
{
    const std::size_t size = elementSize();
    const std::uint64_t perRun = std::max<std::uint64_t>(1, kSlotBytes / size);
    for (std::uint64_t at = first; at < end; at += perRun) {
        Saved run{at, std::min(perRun, end - at), {}, -1};
        run.bytes.resize(std::size_t(run.count) * size);
        if (base_->read(run.index, run.count, run.bytes.data()) != run.count)
            return false;
        MemoryBudget::account(std::ptrdiff_t(run.bytes.size()));
        runs_.push_back(std::move(run));
    }
    return true;
}

std::uint64_t UndoStorage::write(std::uint64_t index, std::uint64_t count, const void* buffer)
{
    if (index >= elementCount())
        return 0;
    count = std::min(count, elementCount() - index);
    if (!save(index, count))
        return 0;
    return base_->write(index, count, buffer);
}

UndoStorage::Outcome UndoStorage::run(const std::function<bool()>& change)
{
    keep();
    if (change()) {
        keep();
        return Outcome::Done;
    }
    if (savedSectors() == 0)
        return Outcome::NothingWritten;
    return rollback() ? Outcome::PutBack : Outcome::NotAllPutBack;
}

bool UndoStorage::rollback()
{
    bool restored = true;
    std::vector<std::uint8_t> spilled;
    for (auto run = runs_.rbegin(); run != runs_.rend(); ++run) {
        const std::uint8_t* bytes = run->bytes.data();
        if (run->slot >= 0) {
            spilled.resize(std::size_t(run->count) * elementSize());
            if (!spill_->peek(run->slot, spilled)) {
                restored = false;
                continue;
            }
            bytes = spilled.data();
        }
        restored = base_->write(run->index, run->count, bytes) == run->count && restored;
    }
    // What the cache held unchanged when this change began is the disk's content still, unless
    // a write-back came between.
    const bool sameCache = cache_.cache && cache_.cache->generation() == cacheGeneration_;
    unchangedInCache_.forEachRun([&](std::uint64_t first, std::uint64_t end) {
        restored = sameCache && cache_.cache->revert(cache_.offset + first, end - first) && restored;
    });
    restored = base_->flush() && restored;
    keep();
    return restored;
}

void UndoStorage::keep()
{
    for (const auto& run : runs_)
        MemoryBudget::account(-std::ptrdiff_t(run.bytes.size()));
    runs_.clear();
    saved_.clear();
    unchangedInCache_.clear();
    spill_.reset();
    spillFailed_ = false;
}

} // namespace Platform
