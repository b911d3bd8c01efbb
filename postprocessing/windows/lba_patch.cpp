#include "postprocessing/windows/lba_patch.h"

#include "platform/core/bytes.h"
#include "postprocessing/keeper_entries.h"
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
    // Every partition entry names a target whose first sector may carry the boot code.
    return foldOverEntries(keeper, KindPartition, Channels::windows(), StepResult::Failed, [&](u64 partition) {
        const auto storage = Tools::getToStorage(keeper, partition);
        return storage ? patchStorage(*storage) : StepResult::NothingFound;
    });
}

} // namespace Libraries::KRO::PostProcessing::Windows
