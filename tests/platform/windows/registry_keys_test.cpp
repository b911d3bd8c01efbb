// Whole keys copied and deleted, and a script of edits of every kind on a real SYSTEM hive:
// hivexregedit, regfexport and our engine must agree afterwards, and every key the script did
// not touch must export exactly as before.

#include "platform/windows/registry_keys.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/hive/hive.h"
#include "platform/hive/layout.h"
#include "platform/log/log.h"
#include "tests/support/command.h"
#include "tests/support/hive_tools.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

namespace Platform::Windows {
namespace {

using namespace Platform;
using Platform::Hive::HiveFile;

const std::string kFixtures = std::string(SHARED_DIR) + "/fixtures/windows-hives/";

std::string unpacked(const TestSupport::TempDir& dir, const std::string& name)
{
    const auto result =
        TestSupport::run({"sh", "-c", "xz -dc '" + kFixtures + name + ".xz' > '" + dir.file(name) + "'"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return dir.file(name);
}

Ref<HiveFile> open(const TestSupport::TempDir& dir, const std::string& name, bool writable = true)
{
    const auto fs = Filesys::create(dir.path().string(), 0, writable ? Access::ReadWrite : Access::ReadOnly);
    return Platform::Hive::Utils::openHive(fs, "/" + name, writable, 0, 32);
}

// The .reg text of hivexregedit, one block per key, by path.
std::map<std::string, std::string> hivexBlocks(const std::string& path)
{
    std::map<std::string, std::string> blocks;
    std::istringstream in(TestSupport::hivexExport(path));
    std::string line, key;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] == '[')
            key = line.substr(1, line.size() - 2);
        if (!key.empty())
            blocks[key] += line + "\n";
    }
    return blocks;
}

std::string ourExport(HiveFile& hive, const std::string& key = "")
{
    std::ostringstream out;
    EXPECT_TRUE(hive.exportReg(key, out)) << Error::text();
    return out.str();
}

// Every security cell's count equals the keys that use it.
void expectSecurityCountsRight(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    const auto hive =
        Platform::Hive::Hive::load({std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()});
    ASSERT_TRUE(hive);
    std::map<std::uint32_t, std::uint32_t> users;
    std::vector<std::uint32_t> pending{hive->base().rootCell};
    while (!pending.empty()) {
        const auto key = Platform::Hive::readKey(hive->cells(), pending.back());
        pending.pop_back();
        ASSERT_TRUE(key);
        ++users[key->security];
        const auto subkeys = Platform::Hive::readSubkeys(hive->cells(), *key);
        ASSERT_TRUE(subkeys);
        pending.insert(pending.end(), subkeys->begin(), subkeys->end());
    }
    for (const auto& [security, count] : users) {
        const auto sk = hive->cells().record(security, "sk", Platform::Hive::Layout::Security::kDescriptor);
        ASSERT_TRUE(sk);
        ByteView view(*sk);
        EXPECT_EQ(view.u32(Platform::Hive::Layout::Security::kReferences), count) << "security cell " << security;
        ASSERT_TRUE(view.ok());
    }
}

TEST(RegistryKeys, AScriptOfEditsOnARealSystemHiveReadsTheSameInEveryReader)
{
    TestSupport::TempDir dir;
    const std::string path = unpacked(dir, "SYSTEM");
    const auto before = hivexBlocks(path);
    const std::vector<std::uint8_t> big = [] {
        std::vector<std::uint8_t> bytes(70000);
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = std::uint8_t(i * 7 + i / 256);
        return bytes;
    }();
    {
        const auto hive = open(dir, "SYSTEM");
        ASSERT_TRUE(hive);
        const auto root = hive->root();
        const auto test = root->createKey("Postclone test");
        ASSERT_TRUE(test);
        ASSERT_TRUE(test->createValue("None", 0));
        ASSERT_TRUE(test->createValue("String", 1)->setString("a string"));
        ASSERT_TRUE(test->createValue("Expandable", 2)->setString("%SystemRoot%\\system32"));
        ASSERT_TRUE(test->createValue("Binary", 3)->setData(3, {1, 2, 3, 4, 5, 6}));
        ASSERT_TRUE(test->createValue("Dword", 4)->setNumber(0x12345678));
        ASSERT_TRUE(test->createValue("Big-endian", 5)->setNumber(0x12345678));
        ASSERT_TRUE(test->createValue("Lines", 7)->setMultiString({"one", "two"}));
        ASSERT_TRUE(test->createValue("Qword", 11)->setNumber(0x1122334455667788ull));
        ASSERT_TRUE(test->createValue("Big", 3)->setData(3, big));
        ASSERT_TRUE(test->createValue("Ключ", 1)->setString("UTF-16 name"));
        ASSERT_TRUE(test->createKey("Zebra"));
        ASSERT_TRUE(test->createKey("old")->rename("Änderung mit einem viel längeren Namen"));
        ASSERT_TRUE(test->createKey("gone"));
        ASSERT_TRUE(test->removeKey(test->subkey("GONE")));
        const auto copy = test->createKey("Tcpip copy");
        ASSERT_TRUE(copyRegistryKey(root->find("ControlSet001/Services/Tcpip"), copy));
        ASSERT_TRUE(
            deleteRegistryKey(root->find("ControlSet001/Services"), root->find("ControlSet001/Services/Tcpip")));
        // Set again: a value that shrinks keeps its cell, one that grows past it moves.
        ASSERT_TRUE(root->find("Select")->value("Current")->setNumber(2));
        ASSERT_TRUE(test->value("String")->setString("a much longer string than the one before it"));
        ASSERT_TRUE(hive->flush()) << Error::text();
    }
    const auto after = hivexBlocks(path);
    const auto hive = open(dir, "SYSTEM", false);
    ASSERT_TRUE(hive);
    EXPECT_FALSE(hive->recovered());

    // The three readers agree with each other.
    EXPECT_TRUE(ourExport(*hive) == TestSupport::hivexExport(path)) << "our export and hivexregedit's differ";
    const auto regf = TestSupport::regfexportItems(path);
    EXPECT_EQ(TestSupport::itemsDiffer(TestSupport::hiveItems(hive->root()), regf), "");
    EXPECT_TRUE(regf.count("\\Postclone test|Big|REG_BINARY|70000"));
    EXPECT_TRUE(regf.count("\\Postclone test\\Tcpip copy\\Parameters"));

    // With the expected tree.
    const auto& test = after.at("\\Postclone test");
    for (const char* line : {"\"None\"=hex(0):\n", "\"Dword\"=dword:12345678\n", "\"Big-endian\"=hex(5):12,34,56,78\n",
                             "\"Qword\"=hex(b):88,77,66,55,44,33,22,11\n",
                             "\"Lines\"=hex(7):6f,00,6e,00,65,00,00,00,74,00,77,00,6f,00,00,00,00,00\n",
                             "\"Binary\"=hex(3):01,02,03,04,05,06\n"})
        EXPECT_NE(test.find(line), std::string::npos) << line;
    EXPECT_EQ(hive->root()->find("Postclone test")->value("Big")->data(), big);
    EXPECT_EQ(hive->root()->find("Postclone test")->value("String")->getString(100),
              "a much longer string than the one before it");
    EXPECT_EQ(hive->root()->find("Postclone test")->value("ключ")->getString(100), "UTF-16 name");
    EXPECT_TRUE(hive->root()->find("Postclone test/änderung MIT EINEM VIEL LÄNGEREN NAMEN"));
    EXPECT_FALSE(hive->root()->find("Postclone test/old"));
    EXPECT_FALSE(hive->root()->find("Postclone test/gone"));
    EXPECT_EQ(hive->root()->find("Select")->value("Current")->getNumber(), 2);
    const std::string tcpip = "\\ControlSet001\\services\\Tcpip"; // as the hive spells it
    std::size_t copiedKeys = 0;
    for (const auto& [key, block] : before) {
        if (key.rfind(tcpip, 0) != 0)
            continue;
        std::string copied = block;
        copied.replace(1, tcpip.size(), "\\Postclone test\\Tcpip copy");
        // Strings are copied as strings: an empty one comes back with its terminator.
        for (std::size_t at; (at = copied.find("=hex(1):\n")) != std::string::npos;)
            copied.replace(at, 9, "=hex(1):00,00\n");
        const std::string copyPath = "\\Postclone test\\Tcpip copy" + key.substr(tcpip.size());
        ++copiedKeys;
        ASSERT_TRUE(after.count(copyPath)) << copyPath;
        EXPECT_EQ(after.at(copyPath), copied);
        EXPECT_FALSE(after.count(key)) << key << " was deleted";
    }
    EXPECT_GT(copiedKeys, 5u);
    // And every key the script did not touch exactly as before.
    std::size_t untouched = 0;
    for (const auto& [key, block] : before) {
        if (key.rfind(tcpip, 0) == 0 || key == "\\Select")
            continue;
        ASSERT_TRUE(after.count(key)) << key;
        EXPECT_EQ(after.at(key), block) << key;
        ++untouched;
    }
    EXPECT_GT(untouched, 10000u);
    expectSecurityCountsRight(path);
}

TEST(RegistryKeys, CopyStreamsBinaryDataInChunksAndStopsAtTypesItCannotCopy)
{
    TestSupport::TempDir dir;
    unpacked(dir, "BCD-Template-Win10");
    const auto hive = open(dir, "BCD-Template-Win10");
    ASSERT_TRUE(hive);
    const auto source = hive->root()->createKey("Source");
    const auto empty = source->createKey("Empty");
    for (const std::size_t size : {std::size_t(0), std::size_t(65536), std::size_t(65537)}) {
        std::vector<std::uint8_t> data(size);
        for (std::size_t i = 0; i < size; ++i)
            data[i] = std::uint8_t(i % 251);
        ASSERT_TRUE(source->createValue("Binary " + std::to_string(size), 3)->setData(3, data));
    }
    const auto destination = hive->root()->createKey("Destination");
    ASSERT_TRUE(copyRegistryKey(source, destination));
    std::string expected = ourExport(*hive, "Source");
    for (std::size_t at; (at = expected.find("[\\Source")) != std::string::npos;)
        expected.replace(at, 8, "[\\Destination");
    EXPECT_TRUE(ourExport(*hive, "Destination") == expected) << "the copy differs from its source";
    // A 1.3 store takes the large value in one cell and lists keys with lf elements.
    EXPECT_EQ(destination->value("Binary 65537")->data()->size(), 65537u);

    ASSERT_TRUE(source->createValue("Link", 6)->setData(6, {1, 2}));
    ScopedLogCapture capture;
    const auto second = hive->root()->createKey("Second");
    EXPECT_FALSE(copyRegistryKey(source, second));
    EXPECT_TRUE(capture.sink().contains("PP Win", LogError, "Unsupported value type 6 of Link"));
    EXPECT_TRUE(second->subkey("Empty")) << "what was copied before stays";
    EXPECT_TRUE(second->value("Binary 65536"));

    // Deleting a tree three levels deep removes everything under it, then the key itself.
    ASSERT_TRUE(empty->createKey("a")->createKey("b")->createKey("c")->createValue("v", 4)->setNumber(1));
    EXPECT_TRUE(deleteRegistryKey(hive->root(), source));
    EXPECT_FALSE(hive->root()->subkey("Source"));
    EXPECT_FALSE(empty->subkeys()) << "a handle to a deleted key fails";
    ASSERT_TRUE(hive->flush());
    const auto theirs = hivexBlocks(dir.file("BCD-Template-Win10"));
    EXPECT_TRUE(theirs.count("\\Destination\\Empty"));
    EXPECT_FALSE(theirs.count("\\Source"));
    expectSecurityCountsRight(dir.file("BCD-Template-Win10"));
}

} // namespace
} // namespace Platform::Windows
