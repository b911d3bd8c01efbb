#pragma once
// The keeper: the step switches and results of one post-processing run and the table of mapping
// entries that pair source objects with target objects. The caller fills it, the steps read and
// extend it, and the results stay in it after the run.

#include "postprocessing/adjust.h"
#include "postprocessing/types.h"

namespace Libraries::KRO::PostProcessing {

class Keeper : public virtual RefCount {
public:
    // 1, 2 and 3 select fixed switch tables; every other value asks the Adjust configuration.
    enum Preset : s32 {
        PresetConfiguration = 0,
        PresetFull = 1,
        PresetKeepIds = 2,
        PresetMinimal = 3,
    };

    Keeper() = default;
    Keeper(const Keeper&) = default;
    Keeper(Keeper&&) = default;
    Keeper& operator=(const Keeper&) = default;
    Keeper& operator=(Keeper&&) = default;
    ~Keeper() override = default;

    // Empties the entry table and zeroes the results; with alsoSwitches, switches everything off.
    virtual void clear(bool alsoSwitches) = 0;
    // A keeper with the same switches and results and no entries.
    virtual Ref<Keeper> cloneSettings() = 0;
    // index 0: a new slot, returns its index (0 when the table cannot grow). Otherwise replaces
    // the entry at index if it is valid and returns index either way.
    virtual u64 addEntry(u64 kind, const VariantList& from, const VariantList& to, u64 id, u64 index) = 0;
    virtual u64 addObjectEntry(u64 kind, ObjectRef fromObject, ObjectRef toObject, u64 id, u64 index) = 0;
    virtual bool setEnabled(s32 step, bool enabled) = 0;
    virtual bool isEnabled(s32 step) const = 0;
    virtual bool setResult(s32 step, StepResult result) = 0;
    virtual StepResult getResult(s32 step) const = 0;
    // Stores "Ok" when ok, "FAILED" otherwise.
    virtual bool setSucceeded(s32 step, bool ok) = 0;
    virtual bool hasSucceeded(s32 step) const = 0;
    // The lowest valid index after `after` with this kind (and this id unless id is 0); 0 if none.
    virtual u64 findNext(u64 kind, u64 after, u64 id) const = 0;
    virtual u64 getKind(u64 index) const = 0;
    virtual u64 getId(u64 index) const = 0;
    virtual VariantList getFrom(u64 index) const = 0;
    virtual ObjectRef getFromObject(u64 index) const = 0;
    virtual VariantList getTo(u64 index) const = 0;
    virtual ObjectRef getToObject(u64 index) const = 0;

    // A new keeper: every switch off, every result "Not accessed", no entries. Null when memory
    // is exhausted.
    static Ref<Keeper> create();
    static void setPreset(Ref<Keeper> keeper, Ref<Configurations::Apps::Adjust> adjust, Preset preset);
};

} // namespace Libraries::KRO::PostProcessing
