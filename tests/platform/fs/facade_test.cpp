// What every facade decides the same way, whichever family is below it: read-only refusals, a
// file created only when asked, emptied when asked, and directories that are not files.

#include "platform/core/error.h"
#include "platform/fs/filesys.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

struct FacadeCase {
    std::string name;
    std::vector<std::string> mkfs; // empty: a host folder
};

void PrintTo(const FacadeCase& value, std::ostream* out)
{
    *out << value.name;
}

class Facade : public testing::TestWithParam<FacadeCase> {
protected:
    void SetUp() override
    {
        location = dir.file("fs");
        if (GetParam().mkfs.empty()) {
            std::filesystem::create_directory(location);
        } else {
            TestSupport::createImage(location, 64ull << 20);
            auto mkfs = GetParam().mkfs;
            mkfs.push_back(location);
            TestSupport::runTool(mkfs);
        }
        auto fs = open(Access::ReadWrite);
        ASSERT_TRUE(fs);
        ASSERT_TRUE(fs->createDirectory("/dir"));
        auto file = fs->openFile("/file", OpenFlags::CreateOrTruncate);
        ASSERT_TRUE(file);
        ASSERT_EQ(file->write("contents", 8), 8u);
        ASSERT_TRUE(file->flush());
    }

    Ref<Filesys> open(Access access) { return Filesys::create(location, OpenFlags::FileSystemByPath, access); }

    TestSupport::TempDir dir;
    std::string location;
};

TEST_P(Facade, AReadOnlyFacadeReadsAndRefusesEveryChange)
{
    const auto fs = open(Access::ReadOnly);
    ASSERT_TRUE(fs);
    EXPECT_TRUE(fs->readOnly());
    EXPECT_TRUE(fs->openFile("/file", OpenFlags::Read));
    EXPECT_FALSE(fs->openFile("/file", OpenFlags::ReadWriteExisting));
    EXPECT_EQ(Error::get(), Error::ReadOnly);
    EXPECT_FALSE(fs->openFile("/new", OpenFlags::CreateOrOpen));
    EXPECT_EQ(Error::get(), Error::ReadOnly);
    EXPECT_FALSE(fs->createDirectory("/newdir"));
    EXPECT_EQ(Error::get(), Error::ReadOnly);
    EXPECT_FALSE(fs->removeFile("/file"));
    EXPECT_EQ(Error::get(), Error::ReadOnly);
    EXPECT_TRUE(fs->flush());
}

TEST_P(Facade, FilesAreCreatedAndEmptiedOnlyWhenTheFlagsSay)
{
    const auto fs = open(Access::ReadWrite);
    ASSERT_TRUE(fs);
    EXPECT_FALSE(fs->openFile("/missing", OpenFlags::ReadWriteExisting));
    EXPECT_EQ(Error::get(), Error::PathNotFound);
    EXPECT_FALSE(fs->openFile("/nodir/new", OpenFlags::CreateOrOpen));
    EXPECT_EQ(Error::get(), Error::PathNotFound);

    const auto kept = fs->openFile("/file", OpenFlags::CreateOrOpen);
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->size(), 8u);
    const auto emptied = fs->openFile("/file", OpenFlags::CreateOrTruncate);
    ASSERT_TRUE(emptied);
    EXPECT_EQ(emptied->size(), 0u);
    const auto created = fs->openFile("/dir/new", OpenFlags::CreateOrOpen);
    ASSERT_TRUE(created);
    EXPECT_EQ(created->size(), 0u);
}

TEST_P(Facade, ADirectoryIsNeverOpenedOrRemovedAsAFile)
{
    const auto fs = open(Access::ReadWrite);
    ASSERT_TRUE(fs);
    EXPECT_FALSE(fs->openFile("/dir", OpenFlags::Read));
    EXPECT_EQ(Error::get(), Error::IsDirectory);
    EXPECT_FALSE(fs->openFile("/dir", OpenFlags::CreateOrTruncate));
    EXPECT_EQ(Error::get(), Error::IsDirectory);
    EXPECT_FALSE(fs->removeFile("/dir"));
    EXPECT_EQ(Error::get(), Error::IsDirectory);
    EXPECT_TRUE(fs->openDirectory("/dir"));
}

INSTANTIATE_TEST_SUITE_P(Families, Facade,
                         testing::Values(FacadeCase{"host", {}},
                                         FacadeCase{"fat32", {"mkfs.fat", "-F", "32", "-s", "1"}},
                                         FacadeCase{"ext4", {"mkfs.ext4", "-q", "-F"}},
                                         FacadeCase{"ntfs", {"mkntfs", "-F", "-f", "-q"}}),
                         [](const auto& param) { return param.param.name; });

} // namespace
} // namespace Platform
