#include "cli/windows_boot_plan.h"

#include "platform/fs/path_lookup.h"
#include "platform/partman/partition_manager.h"
#include "platform/windows/installed_system.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/tools/file_tools.h"

#include <algorithm>

namespace Cli {

namespace {

constexpr const char* kStorePath = "/EFI/Microsoft/Boot/BCD";

struct TemplateCandidate {
    Platform::Ref<Platform::Filesys> fs;
    std::string path;
    Platform::Windows::Utils::InstalledSystem system;
};

Platform::Ref<Platform::Filesys> readOnly(const Platform::Ref<PP::Keeper>& keeper, PP::u64 partition)
{
    return PP::Tools::openTargetFileSystem(keeper, partition, Platform::OpenFlags::FileSystemByPath,
                                           Platform::Access::ReadOnly)
        .fs;
}

// The partition entry of the partition-th partition (1-based, in table order) of the n-th disk.
PP::u64 partitionEntry(const PP::Keeper& keeper, std::size_t targetIndex, unsigned partition)
{
    std::size_t diskNumber = 0;
    for (const PP::u64 disk : PP::entriesOf(keeper, PP::KindDisk)) {
        if (diskNumber++ != targetIndex)
            continue;
        unsigned number = 0;
        for (const PP::u64 entry : PP::entriesOf(keeper, PP::KindPartition, disk))
            if (++number == partition)
                return entry;
    }
    return 0;
}

std::optional<TemplateCandidate> newestTemplate(const Platform::Ref<PP::Keeper>& keeper)
{
    std::optional<TemplateCandidate> newest;
    for (const PP::u64 partition : PP::entriesOf(*keeper, PP::KindPartition)) {
        const auto fs = readOnly(keeper, partition);
        const auto system = fs ? Platform::Windows::Utils::getInstalledSystem(fs) : std::nullopt;
        const auto path = system
                              ? Platform::findPathIgnoringCase(*fs, {"Windows", "System32", "config", "BCD-Template"})
                              : std::nullopt;
        if (!path)
            continue;
        if (!newest || system->major > newest->system.major ||
            (system->major == newest->system.major && system->minor > newest->system.minor))
            newest = TemplateCandidate{fs, *path, *system};
    }
    return newest;
}

} // namespace

bool isEfiPartition(const Options& options, std::size_t targetIndex, unsigned partition, bool efiType)
{
    const auto named = [&](const PartitionPath& entry) { return entry.target == targetIndex; };
    if (std::none_of(options.efiPartitions.begin(), options.efiPartitions.end(), named))
        return efiType;
    return std::any_of(options.efiPartitions.begin(), options.efiPartitions.end(), [&](const PartitionPath& entry) {
        return entry.target == targetIndex && entry.partition == partition;
    });
}

void recordKeptDiskId(PP::Keeper& keeper, PP::u64 disk, const Platform::Ref<Interfaces::Storage>& target,
                      const Platform::Ref<Interfaces::Storage>& source)
{
    const auto targetTable = Platform::PartitionManager::create(target, 512);
    const auto sourceTable = source ? Platform::PartitionManager::create(source, 512) : nullptr;
    if (!targetTable)
        return;
    const auto now = targetTable->diskId();
    keeper.addObjectEntry(PP::KindDiskIdChange, sourceTable ? sourceTable->diskId() : now, now, disk, 0);
}

void recordBcdTemplate(const Platform::Ref<PP::Keeper>& keeper, const Options& options)
{
    std::optional<TemplateCandidate> chosen;
    if (const auto& named = options.bcdTemplate) {
        const PP::u64 entry = partitionEntry(*keeper, named->target, named->partition);
        if (const auto fs = entry ? readOnly(keeper, entry) : nullptr)
            chosen = TemplateCandidate{fs, named->path, {}};
    } else {
        chosen = newestTemplate(keeper);
    }
    if (!chosen)
        return; // the step says that it has no template
    const PP::u64 mapping =
        keeper->addEntry(PP::KindBcdPath, {PP::Variant::string(chosen->path)}, {PP::Variant::string(kStorePath)}, 0, 0);
    keeper->addObjectEntry(PP::KindBcdTemplateFs, nullptr, chosen->fs, mapping, 0);
}

} // namespace Cli
