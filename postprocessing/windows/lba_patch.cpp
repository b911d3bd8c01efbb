#include "postprocessing/windows/lba_patch.h"

#include "platform/core/bytes.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/storage_resolution.h"

#include <vector>

namespace Libraries::KRO::PostProcessing::Windows {

namespace {

constexpr std::size_t kPatchOffset = 217;
constexpr u32 kConditionalJump = 0x003A820F; // 0F 82 3A 00
constexpr u32 kNops = 0x90909090;

StepResult patchStorage(Interfaces::Storage& storage)
{
    std::vector<u8> sector(storage.elementSize(), 0);
    if (storage.read(0, 1, sector.data()) != 1)
        return StepResult::Failed;
    if (Platform::ByteView(sector).u32(kPatchOffset) != kConditionalJump)
        return StepResult::NothingFound;
    Platform::ByteWriter(sector).u32(kPatchOffset, kNops);
    return storage.write(0, 1, sector.data()) == 1 ? StepResult::Ok : StepResult::Failed;
}

} // namespace

StepResult applyLbaPatch(Ref<Keeper> keeper)
{
    if (!keeper) {
        LogMessage(Channels::windows(), LogError) << "No keeper object";
        return StepResult::Failed;
    }
    StepResult result = StepResult::NothingFound;
    // Every partition entry names a target whose first sector may carry the boot code.
    for (u64 id = keeper->findNext(KindPartition, 0, 0); id != 0; id = keeper->findNext(KindPartition, id, 0)) {
        const auto storage = Tools::getToStorage(keeper, id);
        if (storage)
            result = foldResult(result, patchStorage(*storage));
    }
    return result;
}

} // namespace Libraries::KRO::PostProcessing::Windows
