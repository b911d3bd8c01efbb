// Every file-system probe and volume object: detection, the id, a new id and a new offset.

#include "fuzz/fuzz_input.h"
#include "platform/fs/filesys_base.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz::quietLogs();
    // Large enough for the structures at 64 KiB (Btrfs) and the ext and XFS superblocks.
    const auto disk = Fuzz::diskOf(data, size, 160);
    const auto fs = Platform::MountHelper::open(disk);
    if (!fs)
        return 0;
    const auto id = fs->volumeId();
    std::vector<std::uint8_t> changed(id ? id->size() : 16, 0xA5);
    fs->setVolumeId(changed);
    fs->setPartitionOffset(63);
    fs->setGeometry(255, 63);
    return 0;
}
