#include "platform/boot/grub.h"

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

} // namespace
} // namespace Platform
