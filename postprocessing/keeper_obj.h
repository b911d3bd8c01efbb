#pragma once
// The keeper's only implementation.

#include "postprocessing/id_table.h"
#include "postprocessing/keeper.h"

#include <array>

namespace Libraries::KRO::PostProcessing {

class KeeperObj : public Object, public virtual Keeper {
public:
    struct Entry {
        u64 kind = KindNone;
        u64 id = 0;
        VariantList from;
        ObjectRef fromObject;
        VariantList to;
        ObjectRef toObject;
    };

    void clear(bool alsoSwitches) override;
    Ref<Keeper> cloneSettings() override;
    u64 addEntry(u64 kind, const VariantList& from, const VariantList& to, u64 id, u64 index) override;
    u64 addObjectEntry(u64 kind, ObjectRef fromObject, ObjectRef toObject, u64 id, u64 index) override;
    bool setEnabled(s32 step, bool enabled) override;
    bool isEnabled(s32 step) const override;
    bool setResult(s32 step, StepResult result) override;
    StepResult getResult(s32 step) const override;
    bool setSucceeded(s32 step, bool ok) override;
    bool hasSucceeded(s32 step) const override;
    u64 findNext(u64 kind, u64 after, u64 id) const override;
    u64 getKind(u64 index) const override;
    u64 getId(u64 index) const override;
    VariantList getFrom(u64 index) const override;
    ObjectRef getFromObject(u64 index) const override;
    VariantList getTo(u64 index) const override;
    ObjectRef getToObject(u64 index) const override;

    u64 capacity() const noexcept { return entries.capacity(); }

private:
    u64 store(Entry entry, u64 index);

    IdTable<Entry> entries;
    std::array<bool, kStepCount> enabled{};
    std::array<StepResult, kStepCount> results{};
};

} // namespace Libraries::KRO::PostProcessing
