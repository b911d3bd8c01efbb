#include "platform/log/log.h"
#include "postprocessing/common/media_direct.h"

#include "platform/storage/memory_storage.h"
#include "tests/support/mbr_builder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace Libraries::KRO::PostProcessing::Common {
namespace {

// An MBR disk whose sector 3 holds data; with GRUB boot code loading its core from coreSector.
Ref<Platform::MemoryStorage> mbrDisk(std::optional<u64> coreSector, u32 sectorSize = 512)
{
    auto disk = makeRef<Platform::MemoryStorage>(sectorSize, 8192u);
    if (coreSector) {
        std::ifstream in("/usr/lib/grub/i386-pc/boot.img", std::ios::binary);
        std::vector<char> boot{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        // grub-install keeps the disk's own signature and partition table.
        std::copy(boot.begin(), boot.begin() + 0x1B8, disk->bytes().begin());
        for (int i = 0; i < 8; ++i)
            disk->bytes()[std::size_t(0x5C + i)] = u8(*coreSector >> (8 * i));
    }
    TestSupport::writeMbrEntry(*disk, 0, 0, 0x83, 2048, 4096);
    std::fill_n(disk->bytes().begin() + 3 * sectorSize, sectorSize, 0xAB);
    return disk;
}

bool sector3Cleared(Platform::MemoryStorage& disk)
{
    const auto begin = disk.bytes().begin() + 3 * disk.elementSize();
    return std::all_of(begin, begin + disk.elementSize(), [](u8 b) { return b == 0; });
}

u64 addDisk(Keeper& keeper, const Ref<Platform::MemoryStorage>& storage)
{
    const u64 disk = keeper.addEntry(KindDisk, {}, {}, 0, 0);
    keeper.addObjectEntry(KindDiskStorage, nullptr, storage, disk, 0);
    return disk;
}

TEST(MediaDirect, ClearsSectorThreeUnlessGrubLivesThere)
{
    Platform::ScopedLogCapture log;
    auto keeper = Keeper::create();
    auto grubInGap = mbrDisk(1);
    auto grubElsewhere = mbrDisk(2048);
    auto plain = mbrDisk(std::nullopt);
    addDisk(*keeper, grubInGap);
    addDisk(*keeper, grubElsewhere);
    addDisk(*keeper, plain);

    EXPECT_EQ(removeMediaDirect(keeper), StepResult::Ok);
    EXPECT_FALSE(sector3Cleared(*grubInGap));
    EXPECT_TRUE(sector3Cleared(*grubElsewhere));
    EXPECT_TRUE(sector3Cleared(*plain));
    EXPECT_TRUE(log.sink().contains(
        "PP Common", 1, "Found Grub embedded in MBR reserved area, not atempting to clear MediaDirect sector"));
}

TEST(MediaDirect, LeavesOtherDisksAloneAndNeverFails)
{
    Platform::ScopedLogCapture log;
    auto keeper = Keeper::create();
    auto blank = makeRef<Platform::MemoryStorage>(512u, 64u);
    auto bigSectors = mbrDisk(std::nullopt, 4096);
    auto gpt = mbrDisk(std::nullopt);
    TestSupport::writeMbrEntry(*gpt, 0, 0, 0xEE, 1, 8191); // protective, with no GPT behind it
    addDisk(*keeper, blank);
    addDisk(*keeper, bigSectors);
    addDisk(*keeper, gpt);

    EXPECT_EQ(removeMediaDirect(keeper), StepResult::NothingFound);
    EXPECT_FALSE(sector3Cleared(*bigSectors));
    EXPECT_TRUE(log.sink().contains("PP Common", 1, "Sector size != 512, not atempting to clear MediaDirect sector"));
    EXPECT_TRUE(log.sink().contains(
        "PP Common", 1, "Could not determin partition table type, not atempting to clear MediaDirect sector"));
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Common
