#pragma once
// A slot table addressed by a 64-bit index. Index 0 is never handed out ("no entry"). Free
// indices sit on a stack: a new table hands out 15, 14, ... 1, and each growth doubles the
// capacity and hands out the new indices highest first. Reads of an invalid index yield the
// empty value T{}.

#include <cstdint>
#include <new>
#include <utility>
#include <vector>

namespace Libraries::KRO::PostProcessing {

template <typename T>
class IdTable {
public:
    static constexpr std::uint64_t kInitialCapacity = 16;

    IdTable() : slots_(kInitialCapacity), used_(kInitialCapacity, 0)
    {
        for (std::uint64_t index = 1; index < kInitialCapacity; ++index)
            free_.push_back(index);
    }

    std::uint64_t capacity() const noexcept { return slots_.size(); }

    bool valid(std::uint64_t index) const noexcept { return index < capacity() && used_[index]; }

    const T& get(std::uint64_t index) const noexcept { return valid(index) ? slots_[index] : empty(); }

    // Stores value in a new slot; 0 when the table cannot grow.
    std::uint64_t add(T value)
    {
        if (free_.empty() && !grow())
            return 0;
        const std::uint64_t index = free_.back();
        free_.pop_back();
        slots_[index] = std::move(value);
        used_[index] = 1;
        return index;
    }

    // Replaces a used slot; false (and nothing changed) for an invalid index.
    bool replace(std::uint64_t index, T value)
    {
        if (!valid(index))
            return false;
        slots_[index] = std::move(value);
        return true;
    }

    // Frees every used slot, lowest first, keeping the capacity. The highest freed index ends on
    // top of the stack, so hand-out order after a clear matches a new table's.
    void clear()
    {
        for (std::uint64_t index = 1; index < capacity(); ++index) {
            if (!used_[index])
                continue;
            slots_[index] = T{};
            free_.push_back(index);
            used_[index] = 0;
        }
    }

private:
    static const T& empty() noexcept
    {
        static const T value{};
        return value;
    }

    bool grow() noexcept
    {
        const std::uint64_t oldCapacity = capacity();
        const std::uint64_t newCapacity = oldCapacity * 2;
        try {
            slots_.resize(newCapacity);
            used_.resize(newCapacity, 0);
            free_.reserve(newCapacity - oldCapacity);
        } catch (const std::bad_alloc&) {
            slots_.resize(oldCapacity);
            used_.resize(oldCapacity);
            return false;
        }
        for (std::uint64_t index = oldCapacity; index < newCapacity; ++index)
            free_.push_back(index);
        return true;
    }

    std::vector<T> slots_;
    std::vector<std::uint8_t> used_;
    std::vector<std::uint64_t> free_;
};

} // namespace Libraries::KRO::PostProcessing
