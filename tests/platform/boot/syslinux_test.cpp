#include "platform/boot/syslinux.h"

#include "platform/core/bytes.h"
#include "platform/fs/allocation_iterator.h"
#include "platform/fs/memory_file.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

// A FAT16 file system that syslinux itself made bootable, held in memory.
struct InstalledFat {
    TestSupport::TempDir dir;
    Ref<MemoryStorage> storage;
    Ref<Filesys> fs;
    Ref<File> core;

    InstalledFat()
    {
        const std::string image = dir.file("fat.img");
        TestSupport::createImage(image, 16 << 20);
        TestSupport::runTool({"mkfs.fat", "-F", "16", "-s", "1", image});
        TestSupport::runTool({"syslinux", "--install", image});
        storage = TestSupport::loadImage(image);
        fs = Filesys::create(storage, OpenFlags::FileSystemByPath);
        core = fs ? fs->openFile("/ldlinux.sys", OpenFlags::ReadWriteExisting) : Ref<File>();
    }

    std::vector<std::uint8_t> coreBytes()
    {
        std::vector<std::uint8_t> bytes(core->size());
        EXPECT_TRUE(core->seek(0));
        EXPECT_EQ(core->read(bytes.data(), bytes.size()), bytes.size());
        return bytes;
    }
    std::vector<std::uint8_t> bootSector() { return {storage->bytes().begin(), storage->bytes().begin() + 512}; }
};

// The patch area's fields as syslinux' installer reads them.
struct PatchArea {
    std::uint16_t dataSectors;
    std::uint32_t dwords;
    std::size_t extents, extentSlots, advPointers, sect1Low, sect1High;
};

PatchArea patchAreaOf(const std::vector<std::uint8_t>& core)
{
    ByteView view(core);
    std::size_t at = 0;
    while (view.u32(at) != 0x3EB202FE)
        at += 4;
    const std::size_t epa = view.u16(at + 22);
    PatchArea area{view.u16(at + 8),  view.u32(at + 12),  view.u16(epa + 10), view.u16(epa + 12),
                   view.u16(epa + 0), view.u16(epa + 14), view.u16(epa + 16)};
    EXPECT_TRUE(view.ok());
    return area;
}

std::uint32_t dwordSum(const std::vector<std::uint8_t>& bytes, std::uint32_t dwords)
{
    ByteView view(bytes);
    std::uint32_t sum = 0;
    for (std::uint32_t i = 0; i < dwords; ++i)
        sum += view.u32(i * 4);
    EXPECT_TRUE(view.ok());
    return sum;
}

TEST(Syslinux, ACoreScatteredSectorBySectorIsListedWhole)
{
    InstalledFat fat;
    ASSERT_TRUE(fat.core);
    ASSERT_TRUE(Syslinux::isCoreImg(fat.core));
    auto boot = fat.bootSector();
    ASSERT_TRUE(Syslinux::isBootsector(boot.data(), boot.size()));
    const PatchArea before = patchAreaOf(fat.coreBytes());

    // Every sector of the file in a place of its own, except a run of 200 to split at 127.
    std::vector<Area> areas;
    const std::uint64_t sectors = before.dataSectors + 2u;
    for (std::uint64_t i = 0; i < sectors; ++i)
        areas.push_back({10000 + 3 * i, 1});
    areas[5] = {50000, 1};
    ASSERT_TRUE(Syslinux::patchCoreImg(areas.data(), areas.size(), fat.core));
    ASSERT_TRUE(Syslinux::patchBootSector(areas.data(), areas.size(), boot.data(), boot.size()));

    const auto core = fat.coreBytes();
    const PatchArea after = patchAreaOf(core);
    ByteView view(core);
    EXPECT_EQ(dwordSum(core, after.dwords), 0x3EB202FEu);
    for (std::size_t slot = 0; slot < after.extentSlots; ++slot) {
        const std::uint64_t lba = view.u64(after.extents + slot * 10);
        const std::uint16_t count = view.u16(after.extents + slot * 10 + 8);
        if (slot + 1 < before.dataSectors) { // file sectors 1 .. dataSectors - 1, one extent each
            EXPECT_EQ(lba, areas[slot + 1].start) << slot;
            EXPECT_EQ(count, 1) << slot;
        } else {
            EXPECT_EQ(lba, 0u) << slot;
            EXPECT_EQ(count, 0) << slot;
        }
    }
    EXPECT_EQ(view.u64(after.advPointers), areas[before.dataSectors].start);
    EXPECT_EQ(view.u64(after.advPointers + 8), areas[before.dataSectors + 1u].start);
    // The pointer the boot sector loads the first sector from lies where the core's patch area
    // says the installer put it.
    ByteView bootView(boot);
    EXPECT_EQ(bootView.u32(after.sect1Low), 10000u);
    EXPECT_EQ(bootView.u32(after.sect1High), 0u);
    EXPECT_TRUE(view.ok() && bootView.ok());
}

TEST(Syslinux, LongRunsSplitIntoExtentsOfAtMost127Sectors)
{
    InstalledFat fat;
    ASSERT_TRUE(fat.core);
    const PatchArea before = patchAreaOf(fat.coreBytes());
    const Area whole{4000, before.dataSectors + 2u};
    ASSERT_TRUE(Syslinux::patchCoreImg(&whole, 1, fat.core));
    const auto core = fat.coreBytes();
    ByteView view(core);
    std::uint64_t listed = 0;
    for (std::size_t slot = 0; view.u16(before.extents + slot * 10 + 8) != 0; ++slot) {
        EXPECT_EQ(view.u64(before.extents + slot * 10), 4001 + listed);
        EXPECT_LE(view.u16(before.extents + slot * 10 + 8), 127);
        listed += view.u16(before.extents + slot * 10 + 8);
    }
    EXPECT_EQ(listed, before.dataSectors - 1u);
    EXPECT_TRUE(view.ok());
}

TEST(Syslinux, WhatIsNoCoreOrCannotBeListedIsLeftAlone)
{
    InstalledFat fat;
    ASSERT_TRUE(fat.core);
    const auto original = fat.coreBytes();
    const PatchArea area = patchAreaOf(original);
    // Fewer sectors than the core and its ADV need.
    const Area tooShort{4000, area.dataSectors};
    EXPECT_FALSE(Syslinux::patchCoreImg(&tooShort, 1, fat.core));
    EXPECT_EQ(fat.coreBytes(), original);

    // One changed byte breaks the checksum: no longer a core this code patches.
    auto damaged = original;
    damaged[600] ^= 0x01;
    ASSERT_TRUE(fat.core->seek(0));
    ASSERT_EQ(fat.core->write(damaged.data(), damaged.size()), damaged.size());
    EXPECT_FALSE(Syslinux::isCoreImg(fat.core));
    const Area enough{4000, area.dataSectors + 2u};
    EXPECT_FALSE(Syslinux::patchCoreImg(&enough, 1, fat.core));
    EXPECT_EQ(fat.coreBytes(), damaged);

    // A boot sector mkfs wrote is not syslinux'; nor is one cut short.
    TestSupport::TempDir dir;
    TestSupport::createImage(dir.file("plain.img"), 16 << 20);
    TestSupport::runTool({"mkfs.fat", "-F", "16", dir.file("plain.img")});
    auto plain = TestSupport::readAt(dir.file("plain.img"), 0, 512);
    EXPECT_FALSE(Syslinux::isBootsector(plain.data(), plain.size()));
    EXPECT_FALSE(Syslinux::patchBootSector(&enough, 1, plain.data(), plain.size()));
    auto boot = fat.bootSector();
    EXPECT_FALSE(Syslinux::isBootsector(boot.data(), 511));
}

// A file that lies in 20 pieces.
class ScatteredFile final : public File {
public:
    std::uint64_t size() override { return 20 * 512; }
    bool seek(std::uint64_t) override { return true; }
    std::uint64_t read(void*, std::uint64_t) override { return 0; }
    std::uint64_t write(const void*, std::uint64_t) override { return 0; }
    std::uint64_t resize(std::uint64_t) override { return size(); }
    bool flush() override { return true; }
    std::optional<std::vector<Area>> allocation() override
    {
        std::vector<Area> areas;
        for (std::uint64_t i = 0; i < 20; ++i)
            areas.push_back({100 + 2 * i, 1});
        return areas;
    }
};

TEST(AllocationIterator, HandsOutEightAreasPerCallInFileOrder)
{
    ScatteredFile file;
    const auto iterator = AllocationIterator::create(file);
    ASSERT_TRUE(iterator);
    std::vector<Area> collected;
    std::vector<std::size_t> perCall;
    Area slots[AllocationIterator::kAreasPerCall];
    for (std::size_t n; (n = iterator->next(slots)) > 0;) {
        perCall.push_back(n);
        collected.insert(collected.end(), slots, slots + n);
    }
    EXPECT_EQ(collected, *file.allocation());
    EXPECT_EQ(perCall, (std::vector<std::size_t>{8, 8, 4}));

    // A file its family cannot place has no iterator.
    MemoryFile kept({1, 2, 3});
    EXPECT_FALSE(AllocationIterator::create(kept));
}

} // namespace
} // namespace Platform
