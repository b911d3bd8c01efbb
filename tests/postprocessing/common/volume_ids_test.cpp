#include "postprocessing/common/volume_ids.h"

#include "platform/log/log.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing::Common {
namespace {

// A file system whose id and type the test sets, and which remembers what it was given.
class FakeFileSystem : public Platform::FileSysBase {
public:
    FakeFileSystem(u32 type, std::vector<u8> id) : FileSysBase(nullptr), type_(type), id_(std::move(id)) {}
    u32 type() const override { return type_; }
    Ref<ByteArray> volumeId() const override { return ByteArray::create(id_); }
    bool writeVolumeId(std::span<const u8> id) override
    {
        id_.assign(id.begin(), id.end());
        return true;
    }
    u32 type_;
    std::vector<u8> id_;
};

struct VolumeIds : testing::Test {
    Ref<Keeper> keeper = Keeper::create();
    u64 partition = keeper->addEntry(KindPartition, {}, {}, 1, 0);
    Platform::ScopedLogCapture log;

    u64 idEntry(std::vector<u8> from, std::vector<u8> to)
    {
        return keeper->addObjectEntry(KindVolumeIdChange, from.empty() ? nullptr : ByteArray::create(from),
                                      to.empty() ? nullptr : ByteArray::create(to), partition, 0);
    }
};

TEST_F(VolumeIds, RandomIdOfTheFamilysLengthIsRecorded)
{
    auto fs = makeRef<FakeFileSystem>(Platform::FsFat32, std::vector<u8>{1, 2, 3, 4});
    EXPECT_EQ(changeVolumeId(keeper, fs, partition, 0), StepResult::Ok);
    const u64 entry = keeper->findNext(KindVolumeIdChange, 0, partition);
    ASSERT_NE(entry, 0u);
    EXPECT_EQ(*Platform::refCast<ByteArray>(keeper->getFromObject(entry)),
              *ByteArray::create(std::vector<u8>{1, 2, 3, 4}));
    EXPECT_EQ(Platform::refCast<ByteArray>(keeper->getToObject(entry))->size(), 4u);
    EXPECT_EQ(fs->id_, std::vector<u8>(Platform::refCast<ByteArray>(keeper->getToObject(entry))->bytes().begin(),
                                       Platform::refCast<ByteArray>(keeper->getToObject(entry))->bytes().end()));
}

TEST_F(VolumeIds, ExpectedIdThatDiffersFailsWithoutChanging)
{
    auto fs = makeRef<FakeFileSystem>(Platform::FsNtfs, std::vector<u8>(8, 1));
    const u64 entry = idEntry(std::vector<u8>(8, 2), {});
    EXPECT_EQ(changeVolumeId(keeper, fs, partition, entry), StepResult::Failed);
    EXPECT_EQ(fs->id_, std::vector<u8>(8, 1));
    const auto lines = log.sink().texts("PP Common");
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "From id value provided, but value does not match with id of file system");
    EXPECT_EQ(lines[1], "From id value provided, but does not match id of file system");
    EXPECT_EQ(lines[2], "from id:0202020202020202");
    EXPECT_EQ(lines[3], "FS id:0101010101010101");
}

TEST_F(VolumeIds, WrongSizedTargetOnlyWarnsAndTheFileSystemRefusesIt)
{
    auto fs = makeRef<FakeFileSystem>(Platform::FsNtfs, std::vector<u8>(8, 1));
    const u64 entry = idEntry({}, {9, 9, 9, 9});
    EXPECT_EQ(changeVolumeId(keeper, fs, partition, entry), StepResult::Failed);
    EXPECT_TRUE(log.sink().contains("PP Common", 4, "Size of new NTFS id incorrect"));
    EXPECT_TRUE(log.sink().contains("PP Common", 4,
                                    "Could not change volume id for NTFS: the NTFS volume serial is 8 bytes, not 4"));
    EXPECT_EQ(fs->id_, std::vector<u8>(8, 1));
}

TEST_F(VolumeIds, TypesWithoutAVolumeIdAreNothingFound)
{
    auto fs = makeRef<FakeFileSystem>(0x10099, std::vector<u8>(4, 1));
    EXPECT_EQ(changeVolumeId(keeper, fs, partition, 0), StepResult::NothingFound);
    EXPECT_TRUE(log.sink().contains("PP Common", 1, "Changing volume id not supported for unknown"));
    EXPECT_EQ(changeVolumeId(keeper, nullptr, partition, 0), StepResult::NothingFound);
}

TEST_F(VolumeIds, AnIdEntryTakesPartWithTheSwitchOff)
{
    // A real FAT16 file system behind the partition, with a requested new serial.
    TestSupport::TempDir dir;
    const std::string image = dir.file("fat.img");
    TestSupport::createImage(image, 16 << 20);
    TestSupport::runTool({"mkfs.fat", "-F", "16", "-i", "12345678", image});
    auto storage = TestSupport::loadImage(image);
    keeper->addObjectEntry(KindPartitionStorage, nullptr, storage, partition, 0);
    idEntry({0x78, 0x56, 0x34, 0x12}, {0xAA, 0xBB, 0xCC, 0xDD});

    EXPECT_EQ(changeVolumeIds(keeper), StepResult::Ok);
    EXPECT_EQ(storage->bytes()[0x27], 0xAA);
    EXPECT_EQ(storage->bytes()[0x2A], 0xDD);
    EXPECT_EQ(keeper->findNext(KindVolumeIdChange, keeper->findNext(KindVolumeIdChange, 0, 0), 0), 0u);
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Common
