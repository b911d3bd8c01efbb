#include "postprocessing/keeper_obj.h"

namespace Libraries::KRO::PostProcessing {

Ref<Keeper> Keeper::create()
{
    return Platform::makeRef<KeeperObj>();
}

void KeeperObj::clear(bool alsoSwitches)
{
    entries.clear();
    results.fill(StepResult::NotAccessed);
    if (alsoSwitches)
        enabled.fill(false);
}

Ref<Keeper> KeeperObj::cloneSettings()
{
    auto clone = Platform::makeRef<KeeperObj>();
    if (!clone)
        return {};
    clone->enabled = enabled;
    clone->results = results;
    return clone;
}

u64 KeeperObj::store(Entry entry, u64 index)
{
    if (index == 0) {
        try {
            return entries.add(std::move(entry));
        } catch (const std::bad_alloc&) {
            return 0;
        }
    }
    entries.replace(index, std::move(entry));
    return index;
}

u64 KeeperObj::addEntry(u64 kind, const VariantList& from, const VariantList& to, u64 id, u64 index)
{
    try {
        return store(Entry{kind, id, from, {}, to, {}}, index);
    } catch (const std::bad_alloc&) {
        return index;
    }
}

u64 KeeperObj::addObjectEntry(u64 kind, ObjectRef fromObject, ObjectRef toObject, u64 id, u64 index)
{
    return store(Entry{kind, id, {}, std::move(fromObject), {}, std::move(toObject)}, index);
}

bool KeeperObj::setEnabled(s32 step, bool on)
{
    enabled[std::size_t(step)] = on;
    return true;
}

bool KeeperObj::isEnabled(s32 step) const
{
    return enabled[std::size_t(step)];
}

bool KeeperObj::setResult(s32 step, StepResult result)
{
    results[std::size_t(step)] = result;
    return true;
}

StepResult KeeperObj::getResult(s32 step) const
{
    return results[std::size_t(step)];
}

bool KeeperObj::setSucceeded(s32 step, bool ok)
{
    return setResult(step, ok ? StepResult::Ok : StepResult::Failed);
}

bool KeeperObj::hasSucceeded(s32 step) const
{
    return getResult(step) == StepResult::Ok;
}

u64 KeeperObj::findNext(u64 kind, u64 after, u64 id) const
{
    for (u64 index = after + 1; index < entries.capacity(); ++index) {
        if (!entries.valid(index))
            continue;
        const Entry& entry = entries.get(index);
        if (entry.kind == kind && (id == 0 || entry.id == id))
            return index;
    }
    return 0;
}

u64 KeeperObj::getKind(u64 index) const
{
    return entries.get(index).kind;
}

u64 KeeperObj::getId(u64 index) const
{
    return entries.get(index).id;
}

VariantList KeeperObj::getFrom(u64 index) const
{
    return entries.get(index).from;
}

ObjectRef KeeperObj::getFromObject(u64 index) const
{
    return entries.get(index).fromObject;
}

VariantList KeeperObj::getTo(u64 index) const
{
    return entries.get(index).to;
}

ObjectRef KeeperObj::getToObject(u64 index) const
{
    return entries.get(index).toObject;
}

} // namespace Libraries::KRO::PostProcessing
