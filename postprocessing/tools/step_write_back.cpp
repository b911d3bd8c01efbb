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

} // namespace

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
