#include "cli/partition_fs.h"

#include "platform/core/error.h"
#include "platform/partman/partition_manager.h"
#include "platform/storage/file_storage.h"
#include "platform/storage/window_storage.h"

namespace Cli {

using namespace Platform;

// The well-known failures in plain words, the others as the platform described them.
std::string errorText()
{
    const std::string& detail = Error::text();
    switch (Error::get()) {
    case Error::PathNotFound:
        return "no such file or directory";
    case Error::Corrupt:
        return "the file system is damaged here" + (detail.empty() ? "" : ": " + detail);
    case Error::Exists:
        return "already exists";
    case Error::ReadOnly:
        return "the file system is open read-only";
    default:
        return detail.empty() ? "error " + std::to_string(Error::get()) : detail;
    }
}

// The file system of the numbered partition of the target.
Ref<Filesys> openPartition(const std::string& target, unsigned number, Access access, std::string& error)
{
    auto disk = FileStorage::open(target, access);
    if (!disk) {
        error = "cannot open target '" + target + "'";
        return {};
    }
    const auto table = PartitionManager::create(disk, 512);
    for (std::size_t i = 0; table && i < table->partitionCount(); ++i) {
        const auto partition = table->partition(i);
        if (partition->entryIndex() + 1 != number)
            continue;
        auto fs = Filesys::create(WindowStorage::create(disk, partition->start(), partition->size()), 0, access);
        if (!fs)
            error =
                "partition " + std::to_string(number) + " of '" + target + "' holds no file system postclone can open";
        return fs;
    }
    error = "'" + target + "' has no partition " + std::to_string(number);
    return {};
}

} // namespace Cli
