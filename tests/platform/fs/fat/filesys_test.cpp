#include "platform/fs/fat/filesys.h"

#include "platform/core/bytes.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

struct FatFilesysTest : testing::Test {
    TestSupport::TempDir dir;
    Ref<MemoryStorage> storage;
    Ref<FatFilesys> fs;

    void SetUp() override
    {
        const std::string image = dir.file("fat.img");
        TestSupport::createImage(image, 40 << 20);
        TestSupport::runTool({"mkfs.fat", "-F", "32", "-s", "1", image});
        storage = TestSupport::loadImage(image);
        fs = open(Access::ReadWrite);
        ASSERT_TRUE(fs);
    }

    Ref<FatFilesys> open(Access access)
    {
        const auto boot = Fat::readBootSector(*storage);
        return boot ? FatFilesys::open(storage, *boot, access) : Ref<FatFilesys>();
    }

    std::string readAll(const std::string& path)
    {
        auto file = fs->openFile(path, OpenFlags::Read);
        if (!file)
            return "<missing>";
        std::string content(file->size(), '?');
        file->read(content.data(), content.size());
        return content;
    }

    std::uint32_t fsInfoFreeCount()
    {
        const std::uint16_t fsInfo = ByteView(storage->bytes()).u16(0x30);
        return ByteView(storage->bytes()).u32(std::size_t(fsInfo) * 512 + 488);
    }
};

TEST_F(FatFilesysTest, GrowingZeroFillsAndWritingPastTheEndLeavesZeros)
{
    auto file = fs->openFile("/grow.bin", OpenFlags::CreateOrTruncate);
    ASSERT_TRUE(file);
    file->write("abc", 3);
    EXPECT_EQ(file->resize(5000), 5000u);
    file->seek(9000);
    file->write("z", 1);
    file.reset();
    std::string expected = "abc" + std::string(8997, '\0') + "z";
    EXPECT_EQ(readAll("/grow.bin"), expected);
}

TEST_F(FatFilesysTest, SimilarLongNamesGetDistinctShortNames)
{
    for (const char* name : {"/Program Files", "/Program Files (x86)", "/program files.txt"}) {
        auto file = fs->openFile(name, OpenFlags::CreateOrTruncate);
        ASSERT_TRUE(file) << name;
        file->write(name, std::strlen(name));
    }
    EXPECT_EQ(readAll("/PROGRAM FILES (X86)"), "/Program Files (x86)");
    EXPECT_EQ(readAll("/program files"), "/Program Files");
    std::vector<std::string> names;
    auto listing = fs->openDirectory("/");
    for (DirectoryEntry entry; listing->next(entry);)
        names.push_back(entry.name);
    EXPECT_EQ(names, (std::vector<std::string>{"Program Files", "Program Files (x86)", "program files.txt"}));
    EXPECT_FALSE(fs->openFile("/program FILES.TXT", OpenFlags::CreateOrOpen | 0) == nullptr);
}

TEST_F(FatFilesysTest, LongNamesAreUtf16OnDiskAndUtf8Here)
{
    const std::string name = "Donn\xC3\xA9"
                             "es \xC3\xA9t\xC3\xA9 \xF0\x9F\x98\x80.txt"; // "Données été 😀.txt"
    ASSERT_TRUE(fs->openFile("/" + name, OpenFlags::CreateOrTruncate));
    DirectoryEntry entry;
    ASSERT_TRUE(fs->openDirectory("/")->next(entry));
    EXPECT_EQ(entry.name, name);
    EXPECT_TRUE(fs->openFile("/DONN\xC3\xA9"
                             "ES \xC3\xA9T\xC3\xA9 \xF0\x9F\x98\x80.TXT",
                             OpenFlags::Read));
    // The first long-name slot holds "Donné" as UTF-16 units: 'é' is the single unit 0x00E9.
    const auto& bytes = storage->bytes();
    const std::uint64_t root = std::uint64_t(ByteView(bytes).u16(0x0E) + 2 * ByteView(bytes).u32(0x24)) * 512;
    const std::uint64_t firstPiece = root + 32; // the last piece is written first
    EXPECT_EQ(bytes[firstPiece] & 0x3F, 1);
    EXPECT_EQ(ByteView(bytes).u16(std::size_t(firstPiece + 9)), 0x00E9u);
}

TEST_F(FatFilesysTest, RemovingAndShrinkingGiveClustersBack)
{
    fs->flush();
    const std::uint32_t freeBefore = fsInfoFreeCount();
    {
        auto file = fs->openFile("/big", OpenFlags::CreateOrTruncate);
        const std::string data(100 * 512, 'b');
        file->write(data.data(), data.size());
    }
    EXPECT_EQ(fsInfoFreeCount(), freeBefore - 100);
    {
        auto file = fs->openFile("/big", OpenFlags::ReadWriteExisting);
        EXPECT_EQ(file->resize(10 * 512 + 1), 10u * 512 + 1);
    }
    EXPECT_EQ(fsInfoFreeCount(), freeBefore - 11);
    EXPECT_TRUE(fs->removeFile("/BIG"));
    EXPECT_EQ(fsInfoFreeCount(), freeBefore);
    EXPECT_FALSE(fs->removeFile("/big"));
}

TEST_F(FatFilesysTest, ReadOnlyRefusesWrites)
{
    auto readOnly = open(Access::ReadOnly);
    ASSERT_TRUE(readOnly);
    EXPECT_FALSE(readOnly->openFile("/new", OpenFlags::CreateOrOpen));
    EXPECT_FALSE(readOnly->createDirectory("/dir"));
    EXPECT_TRUE(readOnly->openDirectory("/"));
}

} // namespace
} // namespace Platform
