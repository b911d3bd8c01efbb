// Opening real dirty hives with their logs, flushing with Windows' protocol, and surviving a crash
// at every write of a flush. Checked against hivexregedit and regfexport, readers we did not write.

#include "platform/core/error.h"
#include "platform/hive/base_block.h"
#include "platform/hive/hive.h"
#include "platform/hive/hive_file.h"
#include "tests/support/command.h"
#include "tests/support/hive_tools.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

namespace Platform::Hive {
namespace {

const std::string kFixtures = std::string(SHARED_DIR) + "/fixtures/windows-hives/";

void unpack(const TestSupport::TempDir& dir, const std::string& name, const std::string& as)
{
    const auto result = TestSupport::run({"sh", "-c", "xz -dc '" + kFixtures + name + ".xz' > '" + dir.file(as) + "'"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
}

std::vector<std::uint8_t> bytesOf(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string ourExport(HiveFile& hive)
{
    std::ostringstream out;
    EXPECT_TRUE(hive.exportReg("", out)) << Error::text();
    return out.str();
}

std::string hivexExport(const std::string& path)
{
    return TestSupport::hivexExport(path);
}

Ref<HiveFile> openOnHost(const std::string& folder, const std::string& name, bool writable)
{
    const auto fs = Filesys::create(folder, 0, writable ? Access::ReadWrite : Access::ReadOnly);
    return fs ? Utils::openHive(fs, "/" + name, writable, 0, 32) : nullptr;
}

struct DirtyFixture {
    const char* name;
    const char* keyOnlyTheLogsHold;
};

TEST(HiveFile, DirtyHivesAreRecoveredAsTheOtherReadersThenSeeThem)
{
    for (const DirtyFixture fixture :
         {DirtyFixture{"SYSTEM_B", "ControlSet001\\Control\\Class\\{4d36e967-e325-11ce-bfc1-08002be10318}\\0003"},
          DirtyFixture{"NTUSER.DAT", "Software\\Microsoft\\Payment"},
          DirtyFixture{"UsrClass.dat", "Local Settings\\Software\\Microsoft\\Windows\\Shell\\BagMRU\\10"}}) {
        SCOPED_TRACE(fixture.name);
        TestSupport::TempDir dir;
        const std::string name = fixture.name;
        // The logs in another letter case than Windows writes them: they are found all the same.
        unpack(dir, name, name);
        unpack(dir, name + ".LOG1", name + ".log1");
        unpack(dir, name + ".LOG2", name + ".Log2");
        const auto alone = Hive::load(bytesOf(dir.file(name)));
        ASSERT_TRUE(alone);
        EXPECT_TRUE(alone->base().dirty());
        EXPECT_FALSE(alone->find(fixture.keyOnlyTheLogsHold)) << "the primary alone lacks it";

        const auto hive = openOnHost(dir.path(), name, true);
        ASSERT_TRUE(hive) << Error::text();
        EXPECT_TRUE(hive->recovered());
        EXPECT_TRUE(hive->root()->find(fixture.keyOnlyTheLogsHold));
        const std::string inMemory = ourExport(*hive);
        ASSERT_TRUE(hive->flush()) << Error::text();

        const auto written = bytesOf(dir.file(name));
        const auto base = BaseBlock::parse(written);
        ASSERT_TRUE(base);
        EXPECT_TRUE(base->checksumRight);
        EXPECT_EQ(base->primarySequence, base->secondarySequence);
        const auto reopened = openOnHost(dir.path(), name, false);
        ASSERT_TRUE(reopened);
        EXPECT_FALSE(reopened->recovered()) << "a clean primary ignores its logs";
        EXPECT_TRUE(ourExport(*reopened) == inMemory);
        EXPECT_TRUE(hivexExport(dir.file(name)) == inMemory) << "hivexregedit reads the recovered tree";
        EXPECT_EQ(TestSupport::itemsDiffer(TestSupport::hiveItems(reopened->root()),
                                           TestSupport::regfexportItems(dir.file(name))),
                  "")
            << "regfexport sees the same keys and values";
    }
}

TEST(HiveFile, CleanOrDamagedHivesOpenedAndFlushedWithoutEditsWriteNothing)
{
    for (const char* name : {"SYSTEM", "BCD", "BCD-Template-Win10", "BCD-Template-Win11", "corrupted_system_hive"}) {
        SCOPED_TRACE(name);
        TestSupport::TempDir dir;
        unpack(dir, name, name);
        const auto before = std::filesystem::last_write_time(dir.file(name));
        const auto bytes = bytesOf(dir.file(name));
        if (const auto hive = openOnHost(dir.path(), name, true)) {
            EXPECT_TRUE(hive->writable());
            std::ostringstream walk;
            EXPECT_TRUE(hive->exportReg("", walk)) << "the whole tree is read";
            EXPECT_TRUE(hive->flush());
        } else {
            EXPECT_EQ(Error::get(), Error::Corrupt) << "a refusal says what is damaged";
        }
        EXPECT_EQ(bytesOf(dir.file(name)), bytes);
        EXPECT_EQ(std::filesystem::last_write_time(dir.file(name)), before);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1)
            << "no log is made for nothing";
    }
}

TEST(HiveFile, ADirtyHiveWithoutItsLogsOpensReadOnlyAndRefusesWrites)
{
    TestSupport::TempDir dir;
    unpack(dir, "NTUSER.DAT", "NTUSER.DAT");
    const auto bytes = bytesOf(dir.file("NTUSER.DAT"));
    const auto hive = openOnHost(dir.path(), "NTUSER.DAT", true);
    ASSERT_TRUE(hive);
    EXPECT_FALSE(hive->writable());
    EXPECT_FALSE(hive->root()->createKey("New"));
    EXPECT_EQ(hive->lastError(), Error::ReadOnly);
    EXPECT_TRUE(hive->flush()) << "nothing changed, nothing to write";
    EXPECT_EQ(bytesOf(dir.file("NTUSER.DAT")), bytes);
}

// Files in memory that all stop writing after a set number of writes; the write that crosses
// the limit is torn in half, as a power cut leaves it.
struct Disk {
    std::map<std::string, std::vector<std::uint8_t>> files;
    int writesLeft = 1 << 30;
};

class CrashFile final : public File {
public:
    CrashFile(Disk& disk, std::string name) : disk_(disk), name_(std::move(name)) {}
    std::uint64_t size() override { return bytes().size(); }
    bool seek(std::uint64_t position) override
    {
        position_ = position;
        return true;
    }
    std::uint64_t read(void* buffer, std::uint64_t length) override
    {
        const auto& data = bytes();
        const std::uint64_t count =
            position_ >= data.size() ? 0 : std::min<std::uint64_t>(length, data.size() - position_);
        std::memcpy(buffer, data.data() + position_, count);
        position_ += count;
        return count;
    }
    std::uint64_t write(const void* buffer, std::uint64_t length) override
    {
        if (disk_.writesLeft-- <= 0) {
            const std::uint64_t torn = disk_.writesLeft == -1 ? length / 2 : 0;
            put(buffer, torn);
            Error::set(Error::Io, "the disk stopped");
            return torn;
        }
        put(buffer, length);
        return length;
    }
    std::uint64_t resize(std::uint64_t size) override
    {
        if (disk_.writesLeft-- <= 0)
            return bytes().size();
        bytes().resize(size);
        return size;
    }
    bool flush() override { return disk_.writesLeft >= 0; }

private:
    std::vector<std::uint8_t>& bytes() { return disk_.files[name_]; }
    void put(const void* buffer, std::uint64_t length)
    {
        auto& data = bytes();
        if (data.size() < position_ + length)
            data.resize(position_ + length);
        std::memcpy(data.data() + position_, buffer, length);
        position_ += length;
    }
    Disk& disk_;
    std::string name_;
    std::uint64_t position_ = 0;
};

Ref<HiveFile> openInMemory(Disk& disk, const std::string& name)
{
    LogAccess logs;
    logs.baseName = name;
    for (const std::string suffix : {".LOG1", ".LOG2", ".LOG"})
        logs.names.push_back(disk.files.count(name + suffix) ? name + suffix : "");
    logs.open = [&disk](const std::string& file) { return Ref<File>(new CrashFile(disk, file)); };
    logs.create = logs.open;
    return HiveFile::open(Ref<File>(new CrashFile(disk, name)), 32, 0, &logs);
}

// Edits of every kind: a new key with values, a rename that moves a record, a value set again in
// an existing key and an existing tree deleted.
void edit(HiveFile& hive, const std::string& deleted)
{
    const auto root = hive.root();
    const auto scratch = root->createKey("Scratch");
    ASSERT_TRUE(scratch);
    ASSERT_TRUE(scratch->createValue("Text", 1)->setString("a new value"));
    ASSERT_TRUE(scratch->createValue("Big", 3)->setData(3, std::vector<std::uint8_t>(70000, 0x5A)));
    ASSERT_TRUE(scratch->createKey("Child")->rename("Renamed child with a longer name"));
    const auto first = root->subkeys()->next();
    ASSERT_TRUE(first->createValue("Set again", 4)->setNumber(2));
    const auto slash = deleted.rfind('\\');
    ASSERT_TRUE(root->find(deleted.substr(0, slash))->removeKey(root->find(deleted)));
}

struct CrashCase {
    const char* hive;
    bool withLogs; // dirty: the open replays them, the flush first writes what they held
    const char* deleted;
};

TEST(HiveFile, ACrashAtAnyWriteOfAFlushRecoversToTheOldOrTheNewTree)
{
    for (const CrashCase crash : {CrashCase{"SYSTEM", false, "ControlSet001\\Services\\Tcpip"},
                                  CrashCase{"NTUSER.DAT", true, "Software\\Microsoft\\Payment"}}) {
        SCOPED_TRACE(crash.hive);
        TestSupport::TempDir dir;
        Disk disk;
        for (const std::string suffix : {"", ".LOG1", ".LOG2"}) {
            if (!suffix.empty() && !crash.withLogs)
                continue;
            unpack(dir, crash.hive + suffix, crash.hive + suffix);
            disk.files[crash.hive + suffix] = bytesOf(dir.file(crash.hive + suffix));
        }
        std::string oldTree, newTree;
        int writes = 0;
        {
            const auto hive = openInMemory(disk, crash.hive);
            ASSERT_TRUE(hive);
            oldTree = ourExport(*hive);
            Disk counting = disk;
            const auto copy = openInMemory(counting, crash.hive);
            edit(*copy, crash.deleted);
            newTree = ourExport(*copy);
            ASSERT_TRUE(copy->flush()) << Error::text();
            writes = (1 << 30) - counting.writesLeft;
        }
        ASSERT_NE(oldTree, newTree);
        ASSERT_GT(writes, 3);
        int sawOld = 0, sawNew = 0;
        for (int k = 0; k <= writes; ++k) {
            SCOPED_TRACE("the disk stops at write " + std::to_string(k));
            Disk crashed = disk;
            {
                const auto hive = openInMemory(crashed, crash.hive);
                ASSERT_TRUE(hive);
                edit(*hive, crash.deleted);
                crashed.writesLeft = k;
                EXPECT_EQ(hive->flush(), k == writes);
            }
            crashed.writesLeft = 1 << 30;
            const auto reopened = openInMemory(crashed, crash.hive);
            ASSERT_TRUE(reopened) << Error::text();
            EXPECT_TRUE(reopened->writable()) << "the logs always finish what the primary lacks";
            const std::string tree = ourExport(*reopened);
            EXPECT_TRUE(tree == oldTree || tree == newTree) << "neither the old tree nor the new one";
            sawOld += tree == oldTree;
            sawNew += tree == newTree;
            if (k == writes / 2) {
                // What our engine recovers, another reader accepts once it is written back.
                ASSERT_TRUE(reopened->flush());
                const std::string path = dir.file("recovered");
                std::ofstream(path, std::ios::binary)
                    .write(reinterpret_cast<const char*>(crashed.files[crash.hive].data()),
                           std::streamsize(crashed.files[crash.hive].size()));
                EXPECT_TRUE(hivexExport(path) == tree);
            }
        }
        EXPECT_GT(sawOld, 0);
        EXPECT_GT(sawNew, 0);
    }
}

} // namespace
} // namespace Platform::Hive
