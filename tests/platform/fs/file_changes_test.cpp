// A dry run's file change log: host folders are only read while it is installed, later facades
// see the run's changes, and each file is one record of what it was and what it became. On a FAT
// image named by path (made by mkfs.fat and mcopy), the image stays as it was.

#include "platform/core/error.h"
#include "platform/fs/file_changes.h"
#include "platform/fs/filesys.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

namespace Platform {
namespace {

namespace fs = std::filesystem;

std::string readAll(Filesys& filesys, const std::string& path)
{
    const auto file = filesys.openFile(path, OpenFlags::Read);
    if (!file)
        return "<missing>";
    std::string bytes(file->size(), '\0');
    file->read(bytes.data(), bytes.size());
    return bytes;
}

void writeAll(Filesys& filesys, const std::string& path, const std::string& text, std::uint32_t flags)
{
    const auto file = filesys.openFile(path, flags);
    ASSERT_TRUE(file) << path;
    file->resize(0);
    file->write(text.data(), text.size());
}

std::set<std::string> listing(Filesys& filesys, const std::string& path)
{
    std::set<std::string> names;
    const auto directory = filesys.openDirectory(path);
    for (DirectoryEntry entry; directory && directory->next(entry);)
        names.insert(entry.name + (entry.type == 1 ? "/" : ""));
    return names;
}

class LogInstalled : public testing::Test {
protected:
    TestSupport::TempDir dir;
    FileChangeLog log;

    void SetUp() override
    {
        fs::create_directories(dir.path() / "etc");
        std::ofstream(dir.path() / "etc/fstab") << "UUID=old / ext4 defaults 0 1\n";
        std::ofstream(dir.path() / "etc/hostname") << "box\n";
        FileChangeLog::install(&log);
    }
    void TearDown() override { FileChangeLog::install(nullptr); }

    Ref<Filesys> open(std::uint32_t extraFlags = 0)
    {
        return Filesys::create(dir.path().string(), OpenFlags::FileSystemByPath | extraFlags, Access::ReadWrite);
    }
};

TEST_F(LogInstalled, AHostFolderIsOnlyReadAndLaterFacadesSeeTheRunsChanges)
{
    const auto stamp = fs::last_write_time(dir.path() / "etc/fstab");
    {
        const auto first = open();
        writeAll(*first, "/etc/fstab", "UUID=new / ext4 defaults 0 1\n", OpenFlags::ReadWriteExisting);
        ASSERT_TRUE(first->createDirectory("/etc/conf.d"));
        writeAll(*first, "/etc/conf.d/resume", "RESUME=none\n", OpenFlags::CreateOrOpen);
        ASSERT_TRUE(first->removeFile("/etc/hostname"));
        EXPECT_FALSE(first->removeFile("/etc/hostname"));
        EXPECT_EQ(Error::get(), Error::PathNotFound);
        EXPECT_FALSE(first->createDirectory("/etc/conf.d"));
        EXPECT_EQ(Error::get(), Error::Exists);
        EXPECT_FALSE(first->openFile("/etc/missing/file", OpenFlags::CreateOrOpen));
    }
    EXPECT_EQ(TestSupport::readFile(dir.path() / "etc/fstab"), "UUID=old / ext4 defaults 0 1\n");
    EXPECT_EQ(fs::last_write_time(dir.path() / "etc/fstab"), stamp);
    EXPECT_TRUE(fs::exists(dir.path() / "etc/hostname"));
    EXPECT_FALSE(fs::exists(dir.path() / "etc/conf.d"));

    const auto later = open();
    EXPECT_EQ(readAll(*later, "/etc/fstab"), "UUID=new / ext4 defaults 0 1\n");
    EXPECT_EQ(readAll(*later, "/etc/conf.d/resume"), "RESUME=none\n");
    EXPECT_EQ(readAll(*later, "/etc/hostname"), "<missing>");
    EXPECT_EQ(listing(*later, "/etc"), (std::set<std::string>{"fstab", "conf.d/"}));
    EXPECT_EQ(listing(*later, "/etc/conf.d"), (std::set<std::string>{"resume"}));

    const auto changes = log.take();
    ASSERT_EQ(changes.size(), 4u);
    EXPECT_EQ(changes[0].kind, FileChange::Kind::Changed);
    EXPECT_EQ(changes[0].path, "/etc/fstab");
    EXPECT_EQ(changes[0].volumePath, dir.path().string());
    EXPECT_EQ(changes[0].before, "UUID=old / ext4 defaults 0 1\n");
    EXPECT_EQ(changes[0].after, "UUID=new / ext4 defaults 0 1\n");
    EXPECT_TRUE(changes[0].isText());
    EXPECT_EQ(changes[1].kind, FileChange::Kind::DirectoryCreated);
    EXPECT_EQ(changes[2].kind, FileChange::Kind::Created);
    EXPECT_EQ(changes[2].after, "RESUME=none\n");
    EXPECT_FALSE(changes[2].before);
    EXPECT_EQ(changes[3].kind, FileChange::Kind::Removed);
    EXPECT_EQ(changes[3].before, "box\n");
    EXPECT_TRUE(log.take().empty());
}

// A file written back as it was, or made and removed again, is no change; a file changed twice is
// one change from what it was to what it became; binary contents are no text.
TEST_F(LogInstalled, EachFileIsOneRecordFromWhatItWasToWhatItBecame)
{
    const auto facade = open();
    writeAll(*facade, "/etc/hostname", "box\n", OpenFlags::ReadWriteExisting);
    writeAll(*facade, "/etc/new", "x", OpenFlags::CreateOrOpen);
    ASSERT_TRUE(facade->removeFile("/etc/new"));
    writeAll(*facade, "/etc/fstab", "first\n", OpenFlags::ReadWriteExisting);
    writeAll(*facade, "/etc/fstab", std::string("bin\0ary", 7), OpenFlags::ReadWriteExisting);
    const auto changes = log.take();
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].before, "UUID=old / ext4 defaults 0 1\n");
    EXPECT_EQ(changes[0].after, std::string("bin\0ary", 7));
    EXPECT_EQ(changes[0].sizeAfter, 7u);
    EXPECT_FALSE(changes[0].isText());
}

// The run's own temporary folder is neither watched nor held back.
TEST_F(LogInstalled, AnUnwatchedFolderIsWritten)
{
    writeAll(*open(OpenFlags::Unwatched), "/etc/fstab", "written\n", OpenFlags::ReadWriteExisting);
    EXPECT_EQ(TestSupport::readFile(dir.path() / "etc/fstab"), "written\n");
    EXPECT_TRUE(log.take().empty());
}

TEST_F(LogInstalled, AFileSystemImageNamedByPathIsChangedInMemoryOnly)
{
    const std::string image = dir.file("efi.img");
    TestSupport::runTool({"mkfs.fat", "-C", image, "8192"});
    std::ofstream(dir.file("grub.cfg")) << "search --fs-uuid old\n";
    TestSupport::runTool({"mcopy", "-i", image, dir.file("grub.cfg"), "::/grub.cfg"});
    const std::string before = TestSupport::readFile(image);
    {
        const auto facade = Filesys::create(image, 0, Access::ReadWrite);
        ASSERT_TRUE(facade);
        writeAll(*facade, "/grub.cfg", "search --fs-uuid new\n", OpenFlags::ReadWriteExisting);
        EXPECT_EQ(readAll(*facade, "/grub.cfg"), "search --fs-uuid new\n");
        EXPECT_TRUE(facade->flush());
    }
    EXPECT_EQ(TestSupport::readFile(image), before);
    const auto changes = log.take();
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].volumePath, image);
    EXPECT_EQ(changes[0].after, "search --fs-uuid new\n");
}

} // namespace
} // namespace Platform
