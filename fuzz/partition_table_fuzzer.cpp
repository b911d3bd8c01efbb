// MBR (with extended boot records) and GPT readers, and a commit of a changed id back over them.

#include "fuzz/fuzz_input.h"
#include "platform/partman/partition_manager.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz::quietLogs();
    const auto disk = Fuzz::diskOf(data, size, 256);
    const auto table = Platform::PartitionManager::create(disk, 512);
    if (!table)
        return 0;
    for (std::size_t i = 0; i < table->partitionCount(); ++i)
        (void)table->partition(i)->uuid();
    const auto id = table->diskId();
    std::vector<std::uint8_t> changed(id->bytes().begin(), id->bytes().end());
    if (!changed.empty())
        changed[0] ^= 0x5A;
    table->setDiskId(changed);
    table->commit(true);
    return 0;
}
