#pragma once
// A set of sector numbers kept as disjoint runs: a change of a million neighbouring sectors costs
// a few entries, not a million.

#include <cstdint>
#include <iterator>
#include <map>

namespace Platform {

class SectorSet {
public:
    bool contains(std::uint64_t sector) const
    {
        auto it = runs_.upper_bound(sector);
        return it != runs_.begin() && std::prev(it)->second > sector;
    }
    // Whether any sector of [first, end) is in the set.
    bool overlaps(std::uint64_t first, std::uint64_t end) const
    {
        auto it = runs_.upper_bound(first);
        if (it != runs_.begin() && std::prev(it)->second > first)
            return true;
        return it != runs_.end() && it->first < end;
    }
    void insert(std::uint64_t first, std::uint64_t end)
    {
        if (first >= end)
            return;
        auto it = runs_.upper_bound(first);
        if (it != runs_.begin() && std::prev(it)->second >= first)
            --it;
        // Swallow every run that touches [first, end).
        while (it != runs_.end() && it->first <= end) {
            first = std::min(first, it->first);
            end = std::max(end, it->second);
            count_ -= it->second - it->first;
            it = runs_.erase(it);
        }
        runs_.emplace(first, end);
        count_ += end - first;
    }
    std::uint64_t size() const { return count_; }
    // visit(first, end) for each run, in ascending order.
    template <typename Visit>
    void forEachRun(Visit visit) const
    {
        for (const auto& [first, end] : runs_)
            visit(first, end);
    }
    void clear()
    {
        runs_.clear();
        count_ = 0;
    }

private:
    std::map<std::uint64_t, std::uint64_t> runs_; // first -> end, disjoint and not touching
    std::uint64_t count_ = 0;
};

} // namespace Platform
