#include "postprocessing/tools/step_write_back.h"

#include "platform/storage/cached_storage.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"

namespace Libraries::KRO::PostProcessing::Tools {

namespace {

std::string diskName(const Keeper& keeper, u64 disk)
{
    const VariantList to = keeper.getTo(disk);
    const std::string* name = to.empty() ? nullptr : to.front().asString();
    return name ? *name : "disk " + std::to_string(disk);
}

// Whether a partition of the disk has a storage of its own in the keeper.
bool hasPartitionStorages(const Keeper& keeper, u64 disk)
{
    for (const u64 entry : entriesOf(keeper, KindPartitionStorage)) {
        const u64 partition = keeper.getId(entry);
        if (keeper.getId(partition) == disk && (keeper.getToObject(entry) || keeper.getFromObject(entry)))
            return true;
    }
    return false;
}

ObjectRef cached(const ObjectRef& object)
{
    const auto storage = Platform::refCast<Interfaces::Storage>(object);
    if (!storage || Platform::refCast<Platform::CachedStorage>(object))
        return object;
    return Platform::makeRef<Platform::CachedStorage>(storage);
}

} // namespace

CachedDisksForRun::CachedDisksForRun(const Ref<Keeper>& keeper) : keeper_(keeper)
{
    for (const u64 entry : entriesOf(*keeper, KindDiskStorage)) {
        const ObjectRef from = keeper->getFromObject(entry), to = keeper->getToObject(entry);
        const ObjectRef cachedFrom = cached(from), cachedTo = cached(to);
        const u64 disk = keeper->getId(entry);
        if ((cachedFrom.get() == from.get() && cachedTo.get() == to.get()) || hasPartitionStorages(*keeper, disk))
            continue;
        keeper->addObjectEntry(KindDiskStorage, cachedFrom, cachedTo, disk, entry);
        swapped_.push_back({entry, from, to});
    }
}

CachedDisksForRun::~CachedDisksForRun()
{
    for (const auto& [entry, from, to] : swapped_)
        keeper_->addObjectEntry(KindDiskStorage, from, to, keeper_->getId(entry), entry);
}

bool writeBackTargets(const Keeper& keeper, const char* stepLabel)
{
    bool written = true;
    for (const u64 entry : entriesOf(keeper, KindDiskStorage)) {
        const auto cache = Platform::refCast<Platform::CachedStorage>(keeper.getToObject(entry));
        if (!cache)
            continue;
        std::string tableNote;
        if (const std::string problem = cache->writeBack(&tableNote); !problem.empty()) {
            LogMessage(Channels::handler(), LogError) << stepLabel << ": the changes could not be written to "
                                                      << diskName(keeper, keeper.getId(entry)) << ": " << problem;
            written = false;
        }
        if (!tableNote.empty())
            LogMessage(Channels::handler(), LogWarning) << tableNote;
    }
    return written;
}

} // namespace Libraries::KRO::PostProcessing::Tools
