#include "platform/boot/grub.h"

#include "platform/core/bytes.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <vector>

namespace Platform {
namespace {

// The boot sector that grub-install puts into an MBR, from the installed GRUB package.
std::vector<std::uint8_t> grubBootImage()
{
    std::ifstream in("/usr/lib/grub/i386-pc/boot.img", std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(Grub, RecognisesGrub2BootImageAndItsCoreSector)
{
    auto sector = grubBootImage();
    ASSERT_EQ(sector.size(), 512u);
    EXPECT_EQ(Grub::grubBootSectorType(sector.data(), sector.size()), Grub::Grub2);
    EXPECT_EQ(Grub::grubBootSectorStart(sector.data(), sector.size()), 1u);

    sector[0x5C] = 0x00; // core image at 2048, as on a disk with a BIOS boot partition
    sector[0x5D] = 0x08;
    EXPECT_EQ(Grub::grubBootSectorStart(sector.data(), sector.size()), 2048u);
}

TEST(Grub, OtherSectorsAreNotGrub)
{
    auto sector = grubBootImage();
    EXPECT_EQ(Grub::grubBootSectorType(sector.data(), 511), Grub::NotGrub);
    EXPECT_EQ(Grub::grubBootSectorType(nullptr, 512), Grub::NotGrub);
    sector[0x180] = 'X'; // the boot code's messages are gone
    EXPECT_EQ(Grub::grubBootSectorType(sector.data(), sector.size()), Grub::NotGrub);
    EXPECT_EQ(Grub::grubBootSectorStart(sector.data(), sector.size()), 0u);

    std::vector<std::uint8_t> zeros(512, 0);
    zeros[510] = 0x55;
    zeros[511] = 0xAA;
    EXPECT_EQ(Grub::grubBootSectorType(zeros.data(), zeros.size()), Grub::NotGrub);
}

TEST(Grub, RecognisesLegacyStageOne)
{
    auto sector = grubBootImage();
    sector[1] = 0x48; // legacy stage 1 jumps over a shorter parameter block
    sector[0x3E] = 3;
    sector[0x3F] = 2;
    sector[0x44] = 0x21;
    EXPECT_EQ(Grub::grubBootSectorType(sector.data(), sector.size()), Grub::GrubLegacy);
    EXPECT_EQ(Grub::grubBootSectorStart(sector.data(), sector.size()), 0x21u);
}

// The first sector of a core made by grub-mkimage, listing sectors 1 .. 199 at first + 1.
std::vector<std::uint8_t> coreFirstSector(std::uint64_t first)
{
    TestSupport::TempDir dir;
    TestSupport::runTool({"grub-mkimage", "-O", "i386-pc", "-o", dir.file("core.img"), "-p", "/boot/grub", "biosdisk"});
    auto sector = TestSupport::readAt(dir.file("core.img"), 0, 512);
    ByteWriter writer(sector);
    writer.u64(0x1F4, first + 1);
    writer.u16(0x1FC, 199);
    writer.u16(0x1FE, 0x820);
    EXPECT_TRUE(writer.ok());
    return sector;
}

TEST(GrubCore, ItsSectorListIsReadAndRewrittenForScatteredPlaces)
{
    auto sector = coreFirstSector(2048);
    EXPECT_EQ(Grub::grubCoreImageSectors(sector.data(), sector.size(), 2048), (std::vector<Area>{{2048, 200}}));

    const std::vector<Area> scattered{{9000, 1}, {5000, 10}, {7000, 150}, {100, 60}};
    ASSERT_TRUE(Grub::patchCoreImg(scattered, sector.data(), sector.size()));
    // Still 199 sectors after the first, the last area cut to what is loaded.
    EXPECT_EQ(Grub::grubCoreImageSectors(sector.data(), sector.size(), 9000),
              (std::vector<Area>{{9000, 1}, {5000, 10}, {7000, 150}, {100, 39}}));
    // Each entry loads right after the previous one.
    ByteView view(sector);
    EXPECT_EQ(view.u16(0x1FE), 0x820);
    EXPECT_EQ(view.u16(0x1FE - 12), 0x820 + 10 * 0x20);
    EXPECT_EQ(view.u16(0x1FE - 24), 0x820 + 160 * 0x20);
    EXPECT_EQ(view.u16(0x1FC - 36), 0); // the end mark
    EXPECT_TRUE(view.ok());

    auto boot = grubBootImage();
    ASSERT_TRUE(Grub::patchBootSector(scattered, boot.data(), boot.size()));
    EXPECT_EQ(Grub::grubBootSectorStart(boot.data(), boot.size()), 9000u);
}

TEST(GrubCore, AListWithoutRoomOrSectorsLeavesTheSectorAlone)
{
    auto sector = coreFirstSector(2048);
    const auto before = sector;
    std::vector<Area> pieces{{1, 1}};
    for (std::uint64_t i = 0; i < 40; ++i)
        pieces.push_back({1000 + 10 * i, 5}); // 40 entries: more than the space below the code
    EXPECT_FALSE(Grub::patchCoreImg(pieces, sector.data(), sector.size()));
    EXPECT_FALSE(Grub::patchCoreImg({{1, 100}}, sector.data(), sector.size())); // too few sectors
    EXPECT_EQ(sector, before);

    auto notCore = grubBootImage();
    EXPECT_FALSE(Grub::grubCoreImageSectors(notCore.data(), notCore.size(), 1));
    EXPECT_FALSE(Grub::patchCoreImg({{1, 300}}, notCore.data(), notCore.size()));
    // An entry whose load segment does not follow the previous one is no list GRUB wrote.
    ByteWriter(sector).u16(0x1FE, 0x1000);
    EXPECT_FALSE(Grub::grubCoreImageSectors(sector.data(), sector.size(), 2048));
}

TEST(GrubCore, ListsFollowACopyThroughItsTranslator)
{
    const auto translator = RangeTranslator::create({{4096, 10240, 32768}, {2048, 6144, 2048}});
    ASSERT_TRUE(translator);
    EXPECT_EQ(Grub::grubAdjustSectorlist({{2048, 200}}, *translator), (std::vector<Area>{{6144, 200}}));
    // An area across two copied ranges comes out in two pieces.
    EXPECT_EQ(Grub::grubAdjustSectorlist({{4000, 200}}, *translator), (std::vector<Area>{{8096, 96}, {10240, 104}}));
    // A sector no range holds was not copied sector by sector.
    EXPECT_FALSE(Grub::grubAdjustSectorlist({{100, 1}}, *translator));
    EXPECT_FALSE(Grub::grubAdjustSectorlist({{4096 + 32760, 20}}, *translator));
    EXPECT_FALSE(RangeTranslator::create({{0, 0, 100}, {50, 1000, 10}})); // overlapping sources
}

} // namespace
} // namespace Platform
