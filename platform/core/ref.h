#pragma once
// Intrusive reference counting: every shared object of the system derives from Object and is
// handed around as Ref<T>. A null Ref stands for "none" and is the usual failure result.

#include <atomic>
#include <cstddef>
#include <utility>

namespace Platform {

// The counter lives in a virtual base so that interfaces (which also derive from RefCount
// virtually) and their implementations share one count.
class RefCount {
public:
    RefCount() = default;
    RefCount(const RefCount&) noexcept {}
    RefCount& operator=(const RefCount&) noexcept { return *this; }
    virtual ~RefCount() = default;

    void retain() const noexcept { count_.fetch_add(1, std::memory_order_relaxed); }
    void release() const noexcept
    {
        if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    std::size_t useCount() const noexcept { return count_.load(std::memory_order_relaxed); }

private:
    mutable std::atomic<std::size_t> count_{0};
};

// The common base of concrete objects, so that containers such as the keeper can hold any of
// them and readers can down-cast.
class Object : public virtual RefCount {
public:
    ~Object() override = default;
};

template <typename T>
class Ref {
public:
    Ref() noexcept = default;
    Ref(std::nullptr_t) noexcept {}
    explicit Ref(T* object) noexcept : ptr_(object) { acquire(); }
    Ref(const Ref& other) noexcept : ptr_(other.ptr_) { acquire(); }
    Ref(Ref&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
    template <typename U>
    requires std::is_convertible_v<U*, T*> Ref(const Ref<U>& other)
    noexcept : ptr_(other.get()) { acquire(); }
    ~Ref() { drop(); }

    Ref& operator=(Ref other) noexcept
    {
        std::swap(ptr_, other.ptr_);
        return *this;
    }

    T* get() const noexcept { return ptr_; }
    T* operator->() const noexcept { return ptr_; }
    T& operator*() const noexcept { return *ptr_; }
    explicit operator bool() const noexcept { return ptr_ != nullptr; }
    bool operator==(const Ref& other) const noexcept { return ptr_ == other.ptr_; }

    void reset() noexcept
    {
        drop();
        ptr_ = nullptr;
    }

private:
    void acquire() const noexcept
    {
        if (ptr_)
            static_cast<const RefCount*>(ptr_)->retain();
    }
    void drop() const noexcept
    {
        if (ptr_)
            static_cast<const RefCount*>(ptr_)->release();
    }

    T* ptr_ = nullptr;
};

// Creates an object and hands out the first reference. Returns null when memory is exhausted,
// so that no exception crosses an interface.
template <typename T, typename... Args>
Ref<T> makeRef(Args&&... args) noexcept
{
    try {
        return Ref<T>(new T(std::forward<Args>(args)...));
    } catch (...) {
        return {};
    }
}

// Down-cast (or cross-cast) a reference; null when the object is not a U.
template <typename U, typename T>
Ref<U> refCast(const Ref<T>& ref) noexcept
{
    return Ref<U>(dynamic_cast<U*>(ref.get()));
}

} // namespace Platform
