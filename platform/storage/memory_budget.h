#pragma once
// The memory that the disk caches and staged changes of this process hold together, under one
// limit the caller sets (postclone --memory-limit): each holder moves what it can to its spill file
// while the total is over it. Without a limit set, only each holder's own limit applies.

#include <atomic>
#include <cstddef>
#include <functional>
#include <limits>
#include <list>

namespace Platform {

class MemoryBudget {
public:
    static void setLimit(std::size_t bytes) { limit_.store(bytes); }
    static std::size_t limit() { return limit_.load(); }
    static std::size_t inUse() { return inUse_.load(); }
    static bool exceeded() { return inUse() > limit(); }
    // A holder took (positive) or gave back (negative) bytes.
    static void account(std::ptrdiff_t bytes) { inUse_.fetch_add(std::size_t(bytes)); }

    // What is held only in case something fails (old contents kept to take a change back) goes
    // first: a holder of such bytes registers how to move them out, and a cache over the budget
    // asks for that before it drops what it read, which a later step may read again.
    class ColdHolder {
    public:
        explicit ColdHolder(std::function<void()> release);
        ~ColdHolder();
        ColdHolder(const ColdHolder&) = delete;
        ColdHolder& operator=(const ColdHolder&) = delete;

    private:
        std::list<std::function<void()>>::iterator entry_;
    };
    // Each cold holder moves out what it can while the budget is exceeded.
    static void releaseCold();

private:
    static inline std::list<std::function<void()>> coldHolders_;
    static inline std::atomic<std::size_t> limit_{std::numeric_limits<std::size_t>::max()};
    static inline std::atomic<std::size_t> inUse_{0};
};

} // namespace Platform
