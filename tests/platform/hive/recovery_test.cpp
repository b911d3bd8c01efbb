// The replay rules on real logs taken apart: a damaged primary base block takes only the newest
// log, a bad entry ends the replay with what came before it, and an old-format log replays its
// dirty pages when its timestamp matches the primary's.

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/hive/hive.h"
#include "platform/hive/layout.h"
#include "platform/hive/recovery.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <cstring>

namespace Platform::Hive {
namespace {

const std::string kFixtures = std::string(SHARED_DIR) + "/fixtures/windows-hives/";

std::vector<std::uint8_t> fixture(const std::string& name)
{
    const auto result = TestSupport::run({"xz", "-dc", kFixtures + name + ".xz"});
    EXPECT_EQ(result.exitCode, 0);
    return {result.out.begin(), result.out.end()};
}

std::optional<Recovery> replay(std::vector<std::uint8_t>& primary, const std::vector<std::uint8_t>& log1,
                               const std::vector<std::uint8_t>& log2)
{
    const std::vector<TransactionLog> logs{TransactionLog::read(log1), TransactionLog::read(log2)};
    return recover(primary, logs);
}

TEST(Recovery, BothLogsReplayInSequenceOrderAndABadEntryEndsTheReplay)
{
    auto primary = fixture("SYSTEM_B");
    const auto log1 = fixture("SYSTEM_B.LOG1");
    auto log2 = fixture("SYSTEM_B.LOG2");
    auto whole = primary;
    const auto all = replay(whole, log1, log2);
    ASSERT_TRUE(all);
    EXPECT_EQ(all->sequence, 2130u) << "LOG1 (2107-2110), then LOG2 (2111-2130)";
    EXPECT_EQ(all->lastLog, 1);
    const auto base = BaseBlock::parse(whole);
    EXPECT_EQ(base->primarySequence, 2130u);
    EXPECT_FALSE(base->dirty());
    EXPECT_TRUE(Hive::load(whole));

    // One byte of entry 2115's pages changed: its hash no longer holds, 2114 is the last applied.
    log2[385024 + 4096] ^= 0x01;
    auto cut = primary;
    const auto partial = replay(cut, log1, log2);
    ASSERT_TRUE(partial);
    EXPECT_EQ(partial->sequence, 2114u);
}

TEST(Recovery, ADamagedPrimaryBaseBlockTakesOnlyTheNewestLog)
{
    auto primary = fixture("NTUSER.DAT");
    primary[Layout::BaseBlock::kChecksum] ^= 0xFF;
    const auto result = replay(primary, fixture("NTUSER.DAT.LOG1"), fixture("NTUSER.DAT.LOG2"));
    ASSERT_TRUE(result);
    EXPECT_EQ(result->lastLog, 0) << "LOG1 holds the newest entries";
    EXPECT_EQ(result->sequence, 588u);
    EXPECT_TRUE(BaseBlock::parse(primary)->checksumRight) << "the base block comes from the log";
    EXPECT_TRUE(Hive::load(primary));

    auto nothing = fixture("NTUSER.DAT");
    nothing[Layout::BaseBlock::kChecksum] ^= 0xFF;
    const auto before = nothing;
    EXPECT_FALSE(replay(nothing, {}, {}));
    EXPECT_EQ(Error::get(), Error::DirtyLog);
    EXPECT_EQ(Error::text(), "the hive's base block is damaged and no transaction log restores it");
    EXPECT_EQ(nothing, before) << "a failed replay changes nothing";
}

TEST(Recovery, AnOldFormatLogReplaysItsDirtyPages)
{
    namespace B = Layout::BaseBlock;
    auto primary = fixture("BCD");
    const auto wanted = primary;
    // The log: the base block's first sector, a DIRT bitmap marking the second 512-byte page of
    // the bins, and that page as it should be.
    const std::size_t binsSize = ByteView(primary).u32(B::kBinsSize);
    std::vector<std::uint8_t> log(primary.begin(), primary.begin() + 512);
    ByteWriter(log).u32(B::kFileType, 1);
    ByteWriter(log).u32(B::kChecksum, BaseBlock::checksumOf(log));
    std::vector<std::uint8_t> bitmap(4 + binsSize / 512 / 8, 0);
    std::memcpy(bitmap.data(), "DIRT", 4);
    bitmap[4] = 0x02;
    log.insert(log.end(), bitmap.begin(), bitmap.end());
    log.resize((log.size() + 511) / 512 * 512);
    log.insert(log.end(), wanted.begin() + 4096 + 512, wanted.begin() + 4096 + 1024);
    // The primary lost that page's contents in a write that never finished.
    std::fill(primary.begin() + 4096 + 512, primary.begin() + 4096 + 1024, std::uint8_t(0));
    ByteWriter(primary).u32(B::kPrimarySequence, ByteView(primary).u32(B::kSecondarySequence) + 1);
    const std::vector<TransactionLog> logs{TransactionLog::read(log)};
    const auto result = recover(primary, logs);
    ASSERT_TRUE(result) << Error::text();
    EXPECT_EQ(result->pages, std::vector<std::uint32_t>{0});
    EXPECT_TRUE(std::equal(wanted.begin() + 4096, wanted.end(), primary.begin() + 4096));

    // A log of another write (another timestamp) is not applied.
    auto other = wanted;
    ByteWriter(other).u32(B::kPrimarySequence, 99);
    ByteWriter(other).u64(B::kTimestamp, 1);
    ByteWriter(other).u32(B::kChecksum, BaseBlock::checksumOf(other));
    EXPECT_FALSE(recover(other, logs));
}

} // namespace
} // namespace Platform::Hive
