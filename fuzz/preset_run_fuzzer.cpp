// A whole run of preset 1 over a disk image in memory: every step on whatever the bytes hold.

#include "fuzz/fuzz_input.h"
#include "postprocessing/pp_handler.h"
#include "tests/support/keeper_builder.h"

namespace PP = Libraries::KRO::PostProcessing;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz::quietLogs();
    const auto disk = Fuzz::diskOf(data, size, 4096);
    auto keeper = PP::Keeper::create();
    PP::Keeper::setPreset(keeper, nullptr, PP::Keeper::PresetFull);
    TestSupport::addDiskWithPartitions(*keeper, disk);
    PP::PPHandler::process(keeper, Platform::Ref<PP::PPNotifier>());
    return 0;
}
