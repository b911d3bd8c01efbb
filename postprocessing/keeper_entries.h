#pragma once
// The keeper's entries as ranges, and the check every step starts with.

#include "platform/log/log.h"
#include "postprocessing/keeper.h"

#include <functional>
#include <iterator>

namespace Libraries::KRO::PostProcessing {

// The indexes of the entries of one kind, in table order: those whose id is parent, or all of
// the kind when parent is 0.
class KeeperEntries {
public:
    class Iterator {
    public:
        using value_type = u64;
        using difference_type = std::ptrdiff_t;

        Iterator(const Keeper* keeper, u64 kind, u64 parent, u64 index)
            : keeper_(keeper), kind_(kind), parent_(parent), index_(index)
        {
        }
        u64 operator*() const { return index_; }
        Iterator& operator++()
        {
            index_ = keeper_->findNext(kind_, index_, parent_);
            return *this;
        }
        Iterator operator++(int)
        {
            Iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const Iterator& other) const { return index_ == other.index_; }

    private:
        const Keeper* keeper_;
        u64 kind_;
        u64 parent_;
        u64 index_;
    };

    KeeperEntries(const Keeper& keeper, u64 kind, u64 parent) : keeper_(&keeper), kind_(kind), parent_(parent) {}
    Iterator begin() const { return {keeper_, kind_, parent_, keeper_->findNext(kind_, 0, parent_)}; }
    Iterator end() const { return {keeper_, kind_, parent_, 0}; }

private:
    const Keeper* keeper_;
    u64 kind_;
    u64 parent_;
};

inline KeeperEntries entriesOf(const Keeper& keeper, u64 kind, u64 parent = 0)
{
    return {keeper, kind, parent};
}

// Whether the caller marked the partition entry as the EFI system partition (a kind-11 entry
// whose first old value is 1).
inline bool marksEfiPartition(const Keeper& keeper, u64 partition)
{
    const u64 marker = keeper.findNext(KindEfiMarker, 0, partition);
    const VariantList from = marker ? keeper.getFrom(marker) : VariantList{};
    return !from.empty() && from.front().asInteger() == 1u;
}

// Every step's first check: with no keeper it logs "No keeper object" on the step's channel, and
// the step returns what its contract says for that case.
inline bool keeperMissing(const Ref<Keeper>& keeper, Platform::LogChannel channel)
{
    if (keeper)
        return false;
    Platform::LogMessage(channel, Platform::LogError) << "No keeper object";
    return true;
}

// A step that looks at every entry of a kind: with no keeper, "No keeper object" and noKeeper;
// otherwise what perEntry says of each entry, folded (NothingFound when there is none).
inline StepResult foldOverEntries(const Ref<Keeper>& keeper, u64 kind, Platform::LogChannel channel,
                                  StepResult noKeeper, const std::function<StepResult(u64 entry)>& perEntry)
{
    if (keeperMissing(keeper, channel))
        return noKeeper;
    StepResult result = StepResult::NothingFound;
    for (const u64 entry : entriesOf(*keeper, kind))
        result = foldResult(result, perEntry(entry));
    return result;
}

} // namespace Libraries::KRO::PostProcessing
