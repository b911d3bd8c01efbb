#include "postprocessing/tools/storage_resolution.h"

#include "platform/storage/file_storage.h"
#include "postprocessing/log_channels.h"

namespace Libraries::KRO::PostProcessing {

Ref<Interfaces::Storage> openNodeStorage(Ref<String> path)
{
    if (!path)
        return {};
    auto storage = Platform::FileStorage::open(path->str(), Platform::FileStorage::Access::ReadWrite);
    if (!storage)
        storage = Platform::FileStorage::open(path->str(), Platform::FileStorage::Access::ReadOnly);
    if (!storage) {
        LogMessage(Channels::tools(), LogError) << "Could not open node " << path->str();
        return {};
    }
    return storage;
}

namespace Tools {

namespace {

enum class Side { From, To };

const char* kindName(u64 kind)
{
    switch (kind) {
    case KindDisk:
        return "disk";
    case KindPartition:
        return "partition";
    case KindDiskStorage:
        return "disk storage";
    case KindPartitionStorage:
        return "partition storage";
    default:
        return "entry";
    }
}

Ref<Interfaces::Storage> storageOf(const ObjectRef& object)
{
    return Platform::refCast<Interfaces::Storage>(object);
}

Ref<Interfaces::Storage> resolve(const Ref<Keeper>& keeper, u64 index, Side side)
{
    const u64 kind = keeper->getKind(index);
    const auto objectOf = [&](u64 entry) {
        return storageOf(side == Side::From ? keeper->getFromObject(entry) : keeper->getToObject(entry));
    };
    if (kind == KindDiskStorage || kind == KindPartitionStorage)
        return objectOf(index);
    if (kind != KindDisk && kind != KindPartition) {
        LogMessage(Channels::tools(), LogError)
            << "Cannot get storage for " << entryLogName(*keeper, index) << ", unknown type " << kind;
        return {};
    }
    const u64 storageEntry = keeper->findNext(kind == KindDisk ? KindDiskStorage : KindPartitionStorage, 0, index);
    if (storageEntry != 0)
        return objectOf(storageEntry);

    const VariantList ids = side == Side::From ? keeper->getFrom(index) : keeper->getTo(index);
    if (ids.empty() || !ids.front().isString()) {
        LogMessage(Channels::tools(), LogError)
            << "Libraries::KRO::PostProcessing::Tools::" << (side == Side::From ? "getFromStorage" : "getToStorage")
            << " Invalid variant for " << entryLogName(*keeper, index);
        return {};
    }
    auto storage = openNodeStorage(String::create(*ids.front().asString()));
    if (!storage)
        LogMessage(Channels::tools(), LogError) << "Could not open storage for " << entryLogName(*keeper, index);
    return storage;
}

} // namespace

Ref<Interfaces::Storage> getFromStorage(Ref<Keeper> keeper, u64 index)
{
    return keeper ? resolve(keeper, index, Side::From) : Ref<Interfaces::Storage>();
}

Ref<Interfaces::Storage> getToStorage(Ref<Keeper> keeper, u64 index)
{
    return keeper ? resolve(keeper, index, Side::To) : Ref<Interfaces::Storage>();
}

std::string entryLogName(const Keeper& keeper, u64 index)
{
    std::string name = kindName(keeper.getKind(index));
    const VariantList to = keeper.getTo(index);
    if (!to.empty() && to.front().isString())
        name += " " + *to.front().asString();
    return name + " (ID:" + std::to_string(index) + ")";
}

} // namespace Tools
} // namespace Libraries::KRO::PostProcessing
