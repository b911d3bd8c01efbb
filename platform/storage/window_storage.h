#pragma once
// A window of another storage (a partition of a disk): elements first .. first + count - 1 of the
// base, seen from index 0. Nothing outside the window can be read or written through it.

#include "platform/storage/storage.h"

namespace Platform {

class WindowStorage : public Object, public virtual Interfaces::Storage {
public:
    // Null when the window does not lie inside the base storage.
    static Ref<WindowStorage> create(Ref<Interfaces::Storage> base, std::uint64_t first, std::uint64_t count);

    std::uint32_t elementSize() const override { return base_->elementSize(); }
    std::uint64_t elementCount() const override { return count_; }
    std::uint64_t read(std::uint64_t index, std::uint64_t count, void* buffer) override;
    std::uint64_t write(std::uint64_t index, std::uint64_t count, const void* buffer) override;
    bool flush() override { return base_->flush(); }

    std::uint64_t first() const { return first_; }
    const Ref<Interfaces::Storage>& base() const { return base_; }

    WindowStorage(Ref<Interfaces::Storage> base, std::uint64_t first, std::uint64_t count)
        : base_(std::move(base)), first_(first), count_(count)
    {
    }

private:
    std::uint64_t clamp(std::uint64_t index, std::uint64_t count) const
    {
        return index >= count_ ? 0 : std::min(count, count_ - index);
    }

    Ref<Interfaces::Storage> base_;
    std::uint64_t first_;
    std::uint64_t count_;
};

} // namespace Platform
