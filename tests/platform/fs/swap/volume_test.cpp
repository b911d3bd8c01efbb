#include "platform/fs/swap/volume.h"

#include "platform/storage/memory_storage.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <cstring>

namespace Platform {
namespace {

using TestSupport::runTool;

Ref<MemoryStorage> mkswap(TestSupport::TempDir& dir, const std::vector<std::string>& options)
{
    const std::string image = dir.file("swap.img");
    TestSupport::createImage(image, 4 << 20);
    std::vector<std::string> argv{"mkswap", "-q"};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back(image);
    runTool(argv);
    return TestSupport::loadImage(image);
}

void put(MemoryStorage& storage, std::size_t offset, std::string_view text)
{
    std::memcpy(storage.bytes().data() + offset, text.data(), text.size());
}

TEST(SwapVolume, HeadersOfEveryPageSizeTakeANewUuidAndNothingElseChanges)
{
    TestSupport::TempDir dir;
    for (const char* pageSize : {"4096", "65536"}) {
        const auto storage = mkswap(dir, {"-p", pageSize, "-U", "01234567-89ab-4cde-8f01-23456789abcd"});
        ASSERT_EQ(MountHelper::probe(storage), FsSwap) << pageSize;
        const auto swap = MountHelper::open(storage);
        EXPECT_EQ(swap->volumeId()->bytes()[0], 0x01);
        const auto before = storage->bytes();
        const std::vector<std::uint8_t> id(16, 0xA5);
        ASSERT_TRUE(swap->setVolumeId(id)) << Error::text();
        const auto& after = storage->bytes();
        for (std::size_t i = 0; i < after.size(); ++i) {
            if (after[i] != before[i]) {
                EXPECT_TRUE(i >= 1036 && i < 1052) << "byte " << i << " changed";
            }
        }
        EXPECT_EQ(MountHelper::open(storage)->volumeId()->size(), 16u);
        EXPECT_EQ(MountHelper::open(storage)->volumeId()->bytes()[15], 0xA5);
        EXPECT_FALSE(swap->setVolumeId(std::vector<std::uint8_t>(8, 1)));
    }
}

TEST(SwapVolume, HibernationImagesAndOtherHeadersAreNotRewritten)
{
    TestSupport::TempDir dir;
    auto hibernated = mkswap(dir, {});
    put(*hibernated, 4096 - 10, "S1SUSPEND");
    const auto swap = MountHelper::open(hibernated);
    ASSERT_TRUE(swap);
    const auto before = hibernated->bytes();
    EXPECT_FALSE(swap->setVolumeId(std::vector<std::uint8_t>(16, 7)));
    EXPECT_NE(Error::text().find("hibernation image"), std::string::npos);
    EXPECT_EQ(hibernated->bytes(), before);

    auto versionZero = mkswap(dir, {});
    put(*versionZero, 4096 - 10, "SWAP-SPACE"); // the old format has no UUID
    EXPECT_EQ(MountHelper::probe(versionZero), FsNone);
    auto badVersion = mkswap(dir, {});
    put(*badVersion, 1024, "\x02");
    EXPECT_EQ(MountHelper::probe(badVersion), FsNone);
    EXPECT_EQ(MountHelper::probe(makeRef<MemoryStorage>(512u, 8u)), FsNone); // smaller than two pages
}

} // namespace
} // namespace Platform
