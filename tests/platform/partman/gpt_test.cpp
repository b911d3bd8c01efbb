#include "platform/partman/gpt.h"

#include "platform/core/bytes.h"
#include "platform/core/crc32.h"
#include "platform/core/error.h"
#include "platform/partman/layout.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

namespace H = Partman::Layout::GptHeader;
constexpr std::uint64_t kSector = 512;
constexpr std::uint64_t kDiskBytes = 8 << 20;

// An 8 MiB disk with one partition, laid out by sgdisk; grownBy adds that many zero sectors
// behind it, as a copy to a larger disk does, so that the backup header is no longer last.
struct GptDisk {
    Ref<MemoryStorage> storage;
    std::uint64_t backupLba = 0;

    explicit GptDisk(std::uint64_t grownBy = 0)
    {
        static const std::vector<std::uint8_t> pristine = [] {
            TestSupport::TempDir dir;
            const std::string image = dir.file("gpt.img");
            TestSupport::createImage(image, kDiskBytes);
            TestSupport::runTool({"sgdisk", "-n", "1:2048:8191", "-t", "1:8300", image});
            return TestSupport::loadImage(image)->bytes();
        }();
        storage = makeRef<MemoryStorage>(std::uint32_t(kSector), (kDiskBytes / kSector) + grownBy);
        std::copy(pristine.begin(), pristine.end(), storage->bytes().begin());
        backupLba = kDiskBytes / kSector - 1;
    }

    std::span<std::uint8_t> header(std::uint64_t lba) { return {storage->bytes().data() + lba * kSector, kSector}; }
    // The header CRC made right again after a field was changed on purpose.
    void fixCrc(std::uint64_t lba)
    {
        auto bytes = header(lba);
        ByteWriter out(bytes);
        out.u32(H::kHeaderCrc, 0);
        out.u32(H::kHeaderCrc, crc32(bytes.first(ByteView(bytes).u32(H::kHeaderSize))));
        ASSERT_TRUE(out.ok());
    }
    void set32(std::uint64_t lba, std::size_t at, std::uint32_t value)
    {
        ByteWriter out(header(lba));
        out.u32(at, value);
        ASSERT_TRUE(out.ok());
        fixCrc(lba);
    }
    void set64(std::uint64_t lba, std::size_t at, std::uint64_t value)
    {
        ByteWriter out(header(lba));
        out.u64(at, value);
        ASSERT_TRUE(out.ok());
        fixCrc(lba);
    }
};

// The warnings the table logs for its damaged copies, in order.
std::vector<std::string> warningsOpening(GptDisk& disk, bool& opened)
{
    ScopedLogCapture log;
    opened = PartitionManager::create(disk.storage, 512) != nullptr;
    std::vector<std::string> texts;
    for (const auto& line : log.sink().lines())
        texts.push_back(line.text);
    return texts;
}

std::string primaryProblem(const std::function<void(GptDisk&)>& damage)
{
    GptDisk disk;
    damage(disk);
    bool opened = false;
    const auto warnings = warningsOpening(disk, opened);
    EXPECT_TRUE(opened) << "the backup copy should have been used";
    return warnings.empty() ? "<none>" : warnings.front();
}

TEST(GuidPartitionTable, EachDamagedPrimaryHeaderIsNamedAndTheBackupUsed)
{
    const std::string at = "The primary GPT header at sector 1 ";
    EXPECT_EQ(primaryProblem([](GptDisk& d) { d.header(1)[0] = 'X'; }), at + "has no GPT signature");
    EXPECT_EQ(primaryProblem([](GptDisk& d) { d.set32(1, H::kHeaderSize, 20); }), at + "has an impossible header size");
    EXPECT_EQ(primaryProblem([](GptDisk& d) { d.header(1)[H::kDiskGuid] ^= 1; }), at + "has a bad header CRC");
    EXPECT_EQ(primaryProblem([](GptDisk& d) { d.set64(1, H::kMyLba, 5); }), at + "does not point at itself");
    EXPECT_EQ(primaryProblem([](GptDisk& d) { d.set32(1, H::kEntrySize, 100); }),
              at + "has an impossible entry array size");
    EXPECT_EQ(primaryProblem([](GptDisk& d) { d.set64(1, H::kFirstUsableLba, 1); }),
              at + "has an impossible usable area");
    EXPECT_EQ(primaryProblem([](GptDisk& d) { d.set64(1, H::kLastUsableLba, 16384); }),
              at + "has a usable area past the end of the disk");
    EXPECT_EQ(primaryProblem([](GptDisk& d) { d.set64(1, H::kEntriesLba, 1); }),
              at + "has its entry array off the disk or on a header");
    // 1,152 entries of 128 bytes reach sector 290, far into the usable area from 34 (or 2048).
    EXPECT_EQ(primaryProblem([](GptDisk& d) { d.set32(1, H::kEntryCount, 1152); }),
              at + "has its entry array inside the usable area");
    EXPECT_EQ(primaryProblem([](GptDisk& d) { d.storage->bytes()[2 * kSector + 40] ^= 1; }),
              at + "has a bad entry array CRC");
}

TEST(GuidPartitionTable, ABackupArrayOverItsHeaderIsNamed)
{
    GptDisk disk(2048); // the backup header stays where the smaller disk ended
    const std::uint64_t lba = disk.backupLba;
    disk.set64(lba, H::kEntriesLba, lba - 10);
    bool opened = false;
    const auto warnings = warningsOpening(disk, opened);
    EXPECT_TRUE(opened);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0],
              "The backup GPT header at sector " + std::to_string(lba) + " has its entry array over its header");
}

TEST(GuidPartitionTable, BothCopiesDamagedRefusesTheTable)
{
    GptDisk disk;
    disk.header(1)[0] = 'X';
    disk.header(disk.backupLba)[0] = 'X';
    bool opened = true;
    const auto warnings = warningsOpening(disk, opened);
    EXPECT_FALSE(opened);
    ASSERT_EQ(warnings.size(), 3u);
    EXPECT_EQ(warnings[1], "The backup GPT header at sector 16383 has no GPT signature");
    EXPECT_EQ(warnings[2], "Both GPT copies are damaged; not touching this disk");
    EXPECT_EQ(Error::get(), Error::Corrupt);
    EXPECT_EQ(Error::text(), warnings[2]);
}

TEST(GuidPartitionTable, APartitionOffTheDiskRefusesTheTable)
{
    GptDisk disk;
    // The partition's last sector moved past the end in both arrays, their CRCs made right.
    for (const std::uint64_t headerLba : {std::uint64_t(1), disk.backupLba}) {
        const std::uint64_t entries = ByteView(disk.header(headerLba)).u64(H::kEntriesLba);
        std::span<std::uint8_t> array(disk.storage->bytes().data() + entries * kSector, 128 * 128);
        ByteWriter out(array);
        out.u64(Partman::Layout::GptEntry::kLastLba, 20000);
        ASSERT_TRUE(out.ok());
        disk.set32(headerLba, H::kEntriesCrc, crc32(array));
    }
    bool opened = true;
    const auto warnings = warningsOpening(disk, opened);
    EXPECT_FALSE(opened);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0], "GPT partition 1 (sectors 2048 to 20000) does not lie on the disk of 16384 sectors");
}

} // namespace
} // namespace Platform
