#pragma once
// Turns keeper entries into open storages: a storage object the caller put into the keeper, or
// the node path that the entry's first id value names.

#include "platform/storage/storage.h"
#include "postprocessing/keeper.h"

#include <string>

namespace Libraries::KRO::PostProcessing {

// Opens an image file or block device path as a storage (read-write when allowed, else read-only).
Ref<Interfaces::Storage> openNodeStorage(Ref<String> path);

namespace Tools {

Ref<Interfaces::Storage> getFromStorage(Ref<Keeper> keeper, u64 index);
Ref<Interfaces::Storage> getToStorage(Ref<Keeper> keeper, u64 index);

// A short name of an entry for log lines, such as "disk /dev/sdb (ID:15)".
std::string entryLogName(const Keeper& keeper, u64 index);

} // namespace Tools
} // namespace Libraries::KRO::PostProcessing
