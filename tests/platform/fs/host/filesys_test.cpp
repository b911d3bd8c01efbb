#include "platform/core/error.h"
#include "platform/fs/filesys.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace Platform {
namespace {

// Each refusal of a host folder names its cause; none leaves the code at 0.
TEST(HostFilesys, FailuresSayWhy)
{
    TestSupport::TempDir dir;
    std::filesystem::create_directories(dir.path() / "etc");
    const auto readOnly = Filesys::create(dir.path().string(), OpenFlags::FileSystemByPath, Access::ReadOnly);
    ASSERT_TRUE(readOnly);
    Error::set(Error::None);
    EXPECT_FALSE(readOnly->createDirectory("/new"));
    EXPECT_EQ(Error::get(), Error::ReadOnly);
    EXPECT_FALSE(readOnly->removeFile("/etc"));
    EXPECT_EQ(Error::get(), Error::ReadOnly);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "new"));

    const auto writable = Filesys::create(dir.path().string(), OpenFlags::FileSystemByPath, Access::ReadWrite);
    ASSERT_TRUE(writable);
    EXPECT_FALSE(writable->createDirectory("/etc"));
    EXPECT_EQ(Error::get(), Error::Exists);
    EXPECT_FALSE(writable->createDirectory("/../outside"));
    EXPECT_EQ(Error::get(), Error::PathNotFound);
    EXPECT_FALSE(writable->openFile("/missing/file", OpenFlags::Read));
    EXPECT_EQ(Error::get(), Error::PathNotFound);
    EXPECT_FALSE(writable->openFile("/etc", OpenFlags::ReadWriteExisting));
    EXPECT_EQ(Error::get(), Error::IsDirectory);
}

} // namespace
} // namespace Platform
