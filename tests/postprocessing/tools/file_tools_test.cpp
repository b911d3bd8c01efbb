#include "postprocessing/tools/file_tools.h"

#include "platform/core/error.h"
#include "platform/log/log.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace Libraries::KRO::PostProcessing::Tools {
namespace {

// A file that records the size of every write, over a host file.
class RecordingFile : public Platform::File {
public:
    explicit RecordingFile(Ref<Platform::File> inner) : inner_(std::move(inner)) {}
    std::uint64_t size() override { return inner_->size(); }
    bool seek(std::uint64_t position) override { return inner_->seek(position); }
    std::uint64_t read(void* buffer, std::uint64_t length) override { return inner_->read(buffer, length); }
    std::uint64_t write(const void* buffer, std::uint64_t length) override
    {
        writes.push_back(length);
        return inner_->write(buffer, length);
    }
    std::uint64_t resize(std::uint64_t size) override { return inner_->resize(size); }
    bool flush() override { return inner_->flush(); }
    std::vector<std::uint64_t> writes;

private:
    Ref<Platform::File> inner_;
};

struct FileTools : testing::Test {
    TestSupport::TempDir dir;
    Ref<Platform::Filesys> host = Platform::Filesys::create(dir.path().string(), 0x11, Platform::Access::ReadWrite);

    Ref<Platform::File> fileWith(const std::string& name, const std::string& content)
    {
        std::ofstream(dir.file(name), std::ios::binary) << content;
        return host->openFile("/" + name, Platform::OpenFlags::ReadWriteExisting);
    }
    std::string contentOf(const std::string& name)
    {
        std::ifstream in(dir.file(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
};

TEST_F(FileTools, CopyResizesTheTargetAndMovesMebibyteBlocks)
{
    const std::string big((1 << 20) + 1, 'x');
    auto target = makeRef<RecordingFile>(fileWith("target", "old content that is longer than nothing"));
    ASSERT_TRUE(copyFile(fileWith("empty", ""), target));
    EXPECT_EQ(contentOf("target"), "");
    EXPECT_TRUE(target->writes.empty());

    ASSERT_TRUE(copyFile(fileWith("big", big), target));
    EXPECT_EQ(contentOf("target"), big);
    EXPECT_EQ(target->writes, (std::vector<std::uint64_t>{1 << 20, 1}));

    ASSERT_TRUE(copyFile(fileWith("small", "short"), target)); // a shorter source shrinks the target
    EXPECT_EQ(contentOf("target"), "short");
}

// A rewritten fstab stays in memory; a file that outgrows a mebibyte moves to the temporary
// folder, with what was written so far, and leaves nothing behind.
TEST_F(FileTools, TemporaryFilesStayInMemoryUntilTheyGrowLarge)
{
    const char* saved = std::getenv("TMPDIR");
    const std::string previous = saved ? saved : "";
    ::setenv("TMPDIR", dir.path().c_str(), 1);
    const auto inFolder = [&] {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
            count += entry.path().filename().string().starts_with("ppfstab_");
        return count;
    };
    {
        auto first = createTempFile();
        auto second = createTempFile();
        ASSERT_TRUE(first && second);
        EXPECT_EQ(first->write("a", 1), 1u);
        EXPECT_EQ(second->size(), 0u);
        EXPECT_EQ(inFolder(), 0u);

        const std::string block(700 * 1024, 'b');
        ASSERT_EQ(first->write(block.data(), block.size()), block.size());
        ASSERT_EQ(first->write(block.data(), block.size()), block.size());
        EXPECT_EQ(inFolder(), 1u);
        EXPECT_EQ(first->size(), 1 + 2 * block.size());
        std::string back(3, '\0');
        ASSERT_TRUE(first->seek(0));
        ASSERT_EQ(first->read(back.data(), 3), 3u);
        EXPECT_EQ(back, "abb");
    }
    EXPECT_EQ(inFolder(), 0u);
    if (saved)
        ::setenv("TMPDIR", previous.c_str(), 1);
    else
        ::unsetenv("TMPDIR");

    EXPECT_FALSE(host->openFile("/missing", Platform::OpenFlags::Read));
    EXPECT_EQ(Platform::Error::get(), Platform::Error::PathNotFound);
    EXPECT_FALSE(host->openFile("/../escape", Platform::OpenFlags::Read));
}

TEST_F(FileTools, TargetFileSystemsComeFromAPathOrTheStorage)
{
    auto keeper = Keeper::create();
    const u64 disk = keeper->addEntry(KindDisk, {}, {}, 0, 0);
    const u64 mounted = keeper->addEntry(KindPartition, {}, {Variant::string(dir.path().string())}, disk, 0);
    std::ofstream(dir.file("hello")) << "hi";
    auto fs = getToFSItemFactory(keeper, mounted, 1);
    ASSERT_TRUE(fs);
    EXPECT_EQ(fs->openFile("/hello", Platform::OpenFlags::Read)->size(), 2u);

    const std::string image = dir.file("ext.img");
    TestSupport::createImage(image, 16 << 20);
    TestSupport::runTool({"mkfs.ext4", "-q", "-F", image});
    const u64 onStorage = keeper->addEntry(KindPartition, {}, {Variant::bytes({1, 2})}, disk, 0);
    keeper->addObjectEntry(KindPartitionStorage, nullptr, TestSupport::loadImage(image), onStorage, 0);
    auto ext = getToFSItemFactory(keeper, onStorage, 1);
    ASSERT_TRUE(ext);
    EXPECT_TRUE(ext->openDirectory("/lost+found"));

    Platform::ScopedLogCapture log;
    EXPECT_FALSE(getToFSItemFactory(keeper, disk, 1));
    EXPECT_EQ(log.sink().texts("PP Tools")[0].rfind("Id is no partition: disk", 0), 0u);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Tools
