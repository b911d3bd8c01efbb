#include "platform/storage/staging_storage.h"

#include "platform/storage/memory_budget.h"

#include <algorithm>
#include <cstring>

namespace Platform {

StagingStorage::StagingStorage(Ref<Interfaces::Storage> base, std::size_t memoryLimit)
    : base_(std::move(base)), memoryLimit_(memoryLimit)
{
}

StagingStorage::~StagingStorage()
{
    MemoryBudget::account(-std::ptrdiff_t(memoryInUse()));
}

std::uint64_t StagingStorage::read(std::uint64_t index, std::uint64_t count, void* buffer)
{
    const std::uint64_t done = base_->read(index, count, buffer);
    const std::size_t size = elementSize();
    auto* bytes = static_cast<std::uint8_t*>(buffer);
    for (auto it = pages_.lower_bound(index / kPageSectors); it != pages_.end(); ++it) {
        const std::uint64_t first = it->first * kPageSectors;
        if (first >= index + done)
            break;
        const std::uint8_t* page = resident(it->second);
        if (!page)
            return 0;
        for (std::uint64_t i = 0; i < kPageSectors; ++i) {
            const std::uint64_t sector = first + i;
            if (it->second.staged[i] && sector >= index && sector < index + done)
                std::memcpy(bytes + (sector - index) * size, page + i * size, size);
        }
        makeRoom(&it->second);
    }
    return done;
}

std::uint8_t* StagingStorage::resident(Page& page)
{
    if (page.bytes)
        return page.bytes.get();
    page.bytes = std::make_unique_for_overwrite<std::uint8_t[]>(pageBytes());
    if (page.slot >= 0) {
        if (!spill_->load(page.slot, {page.bytes.get(), pageBytes()})) {
            page.bytes.reset();
            return nullptr;
        }
        page.slot = -1;
        --spilledPages_;
    }
    ++pagesInMemory_;
    MemoryBudget::account(std::ptrdiff_t(pageBytes()));
    return page.bytes.get();
}

// When the spill file cannot take a page, memory goes over the limit rather than the change
// failing.
void StagingStorage::makeRoom(const Page* keep)
{
    const auto overLimit = [this] { return memoryInUse() > memoryLimit_ || MemoryBudget::exceeded(); };
    if (!overLimit() || spillFailed_)
        return;
    if (!spill_)
        spill_ = std::make_unique<SpillFile>(pageBytes());
    for (auto& [index, page] : pages_) {
        if (!overLimit())
            return;
        if (!page.bytes || &page == keep)
            continue;
        const std::int64_t slot = spill_->store({page.bytes.get(), pageBytes()});
        if (slot < 0) {
            spillFailed_ = true;
            return;
        }
        page.bytes.reset();
        page.slot = slot;
        --pagesInMemory_;
        MemoryBudget::account(-std::ptrdiff_t(pageBytes()));
        ++spilledPages_;
    }
}

std::uint64_t StagingStorage::write(std::uint64_t index, std::uint64_t count, const void* buffer)
{
    if (index >= elementCount())
        return 0;
    count = std::min(count, elementCount() - index);
    ++writeCalls_;
    const std::size_t size = elementSize();
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    for (std::uint64_t i = 0; i < count;) {
        const std::uint64_t sector = index + i;
        Page& page = pages_[sector / kPageSectors];
        std::uint8_t* target = resident(page);
        if (!target)
            return i;
        // The rest of the write that lands in this page.
        const std::uint64_t at = sector % kPageSectors;
        const std::uint64_t take = std::min(kPageSectors - at, count - i);
        std::memcpy(target + at * size, bytes + i * size, std::size_t(take) * size);
        for (std::uint64_t s = at; s < at + take; ++s)
            page.staged.set(s);
        i += take;
        makeRoom(&page);
    }
    return count;
}

std::size_t StagingStorage::stagedSectors() const
{
    std::size_t count = 0;
    for (const auto& [index, page] : pages_)
        count += page.staged.count();
    return count;
}

// Writes the staged sectors in [from, to) outside [skipFirst, skipEnd), one write per run of
// consecutive sectors.
bool StagingStorage::commitRange(std::uint64_t from, std::uint64_t to, std::uint64_t skipFirst, std::uint64_t skipEnd)
{
    constexpr std::size_t kMaxRun = 1 << 20;
    const std::size_t size = elementSize();
    std::vector<std::uint8_t> run;
    run.reserve(kMaxRun);
    std::uint64_t runStart = 0;
    const auto flushRun = [&] {
        const std::uint64_t count = run.size() / size;
        const bool ok = count == 0 || base_->write(runStart, count, run.data()) == count;
        run.clear();
        return ok;
    };
    std::vector<std::uint8_t> spilled;
    for (auto& [index, page] : pages_) {
        // A spilled page is read into a buffer of its own: the commit does not grow memory.
        const std::uint8_t* bytes = page.bytes.get();
        if (!bytes) {
            spilled.resize(pageBytes());
            if (!spill_->peek(page.slot, spilled))
                return false;
            bytes = spilled.data();
        }
        for (std::uint64_t i = 0; i < kPageSectors; ++i) {
            const std::uint64_t sector = index * kPageSectors + i;
            const bool wanted =
                page.staged[i] && sector >= from && sector < to && !(sector >= skipFirst && sector < skipEnd);
            const bool runEnds = !run.empty() && (sector != runStart + run.size() / size || run.size() >= kMaxRun);
            if (!wanted || runEnds) {
                if (!flushRun())
                    return false;
            }
            if (!wanted)
                continue;
            if (run.empty())
                runStart = sector;
            run.insert(run.end(), bytes + i * size, bytes + (i + 1) * size);
        }
    }
    return flushRun();
}

bool StagingStorage::commit(std::uint64_t lastFirst, std::uint64_t lastEnd)
{
    if (!commitRange(0, UINT64_MAX, lastFirst, lastEnd) || !commitRange(lastFirst, lastEnd, 0, 0))
        return false;
    discard();
    return base_->flush();
}

void StagingStorage::discard()
{
    pages_.clear();
    MemoryBudget::account(-std::ptrdiff_t(memoryInUse()));
    pagesInMemory_ = 0;
    spill_.reset();
    spilledPages_ = 0;
    spillFailed_ = false;
}

} // namespace Platform
