// Edits at the record level: the layouts each hive version expects, first-fit reuse and
// coalescing of free cells, and subkey lists kept in Windows' order.

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/hive/hive.h"
#include "platform/hive/layout.h"
#include "platform/hive/names.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <fstream>

namespace Platform::Hive {
namespace {

const std::string kFixtures = std::string(SHARED_DIR) + "/fixtures/windows-hives/";

Hive fixture(const std::string& name)
{
    const auto result = TestSupport::run({"xz", "-dc", kFixtures + name + ".xz"});
    EXPECT_EQ(result.exitCode, 0);
    auto hive = Hive::load(std::vector<std::uint8_t>(result.out.begin(), result.out.end()));
    EXPECT_TRUE(hive) << Error::text();
    return std::move(*hive);
}

std::string signatureAt(const Hive& hive, std::uint32_t cell)
{
    const auto data = hive.cells().cell(cell);
    return data && data->size() >= 2 ? std::string(data->begin(), data->begin() + 2) : "";
}

std::vector<std::string> subkeyNames(const Hive& hive, std::uint32_t key)
{
    std::vector<std::string> names;
    const auto subkeys = readSubkeys(hive.cells(), *readKey(hive.cells(), key));
    for (const std::uint32_t offset : subkeys.value())
        names.push_back(readKey(hive.cells(), offset)->name);
    return names;
}

TEST(HiveEdit, EachVersionGetsItsListKindAndLargeDataLayout)
{
    for (const auto& [name, list, bigKind] : {std::tuple{"BCD", "lf", ""}, std::tuple{"SYSTEM", "lh", "db"}}) {
        SCOPED_TRACE(name);
        Hive hive = fixture(name);
        const std::uint32_t root = hive.base().rootCell;
        const auto key = hive.createKey(root, "New key");
        ASSERT_TRUE(key);
        EXPECT_EQ(signatureAt(hive, readKey(hive.cells(), root)->subkeyList), list);
        const std::vector<std::uint8_t> justFits(16344, 1), tooLarge(16345, 2);
        const auto one = hive.setValue(*key, "fits", 3, justFits);
        const auto two = hive.setValue(*key, "large", 3, tooLarge);
        ASSERT_TRUE(one && two);
        EXPECT_GE(hive.cells().cell(readValue(hive.cells(), *one)->dataField)->size(), justFits.size());
        const auto large = readValue(hive.cells(), *two);
        // 1.3 hives hold large data in one cell; from 1.4 on it is split into 16344-byte segments.
        if (*bigKind) {
            EXPECT_EQ(signatureAt(hive, large->dataField), bigKind);
        } else {
            EXPECT_GE(hive.cells().cell(large->dataField)->size(), tooLarge.size());
        }
        EXPECT_EQ(readData(hive.cells(), *large, hive.base().minorVersion), tooLarge);
    }
}

TEST(HiveEdit, FreedCellsAreReusedFirstFitAndCoalesced)
{
    Hive hive = fixture("SYSTEM");
    const std::uint32_t root = hive.base().rootCell;
    const std::size_t binsBefore = hive.cells().bytes().size();
    const auto a = hive.cells().allocate(1000);
    const auto b = hive.cells().allocate(1000);
    ASSERT_TRUE(a && b);
    hive.cells().release(*a);
    hive.cells().release(*b);
    // Both neighbours merged, if they were neighbours: a cell as large as both fits where a was.
    const auto both = hive.cells().allocate(2000);
    ASSERT_TRUE(both);
    if (*b == *a + 1008) {
        EXPECT_EQ(*both, *a);
    }
    // Nothing large enough is free: a new bin, and only then.
    const auto huge = hive.cells().allocate(200000);
    ASSERT_TRUE(huge);
    EXPECT_GE(*huge, binsBefore);
    EXPECT_GT(hive.cells().bytes().size(), binsBefore);
    hive.cells().release(*huge);
    const auto again = hive.cells().allocate(200000);
    EXPECT_EQ(again, huge) << "the freed bin's cell is found first fit";
    EXPECT_TRUE(readKey(hive.cells(), root));
}

TEST(HiveEdit, RenamedKeysTakeTheirPlaceInWindowsOrder)
{
    Hive hive = fixture("BCD-Template-Win10");
    const std::uint32_t root = hive.base().rootCell;
    const auto parent = hive.createKey(root, "Order");
    ASSERT_TRUE(parent);
    for (const char* name : {"b", "SS3", "a", "ß2", "ss1"})
        ASSERT_TRUE(hive.createKey(*parent, name));
    // Upper case per UTF-16 unit, no expansion: ß stays after S.
    EXPECT_EQ(subkeyNames(hive, *parent), (std::vector<std::string>{"a", "b", "ss1", "SS3", "ß2"}));
    const auto a = hive.findSubkey(*parent, "A");
    ASSERT_TRUE(a);
    const std::string longer = "t, a much longer name that cannot fit the old record";
    const auto moved = hive.renameKey(*parent, *a, longer);
    ASSERT_TRUE(moved);
    EXPECT_NE(*moved, *a) << "the record moved";
    EXPECT_EQ(subkeyNames(hive, *parent), (std::vector<std::string>{"b", "ss1", "SS3", longer, "ß2"}));
    EXPECT_FALSE(hive.renameKey(*parent, *hive.findSubkey(*parent, "b"), "SS1"));
    EXPECT_EQ(Error::get(), Error::Exists);
    EXPECT_EQ(hive.createKey(*parent, "B"), hive.findSubkey(*parent, "b")) << "create opens what exists";
    EXPECT_TRUE(hive.deleteKey(root, *parent));
    EXPECT_FALSE(hive.findSubkey(root, "Order"));
}

TEST(HiveEdit, NamesAreStoredAndHashedAsWindowsDoes)
{
    EXPECT_TRUE(storedName("Control").compressed);
    EXPECT_TRUE(storedName("Änderung").compressed) << "Latin-1 fits a byte per character";
    EXPECT_FALSE(storedName("Ключ").compressed);
    EXPECT_EQ(storedName("Ключ").bytes.size(), 8u);
    // The lh hash of "Select" as a real SYSTEM hive stores it.
    std::uint32_t hash = 0;
    for (const char c : std::string("SELECT"))
        hash = hash * 37 + std::uint32_t(c);
    EXPECT_EQ(nameHash("select"), hash);
    EXPECT_EQ(nameHint("Objects"), 0x656A624Fu); // "Obje"
    EXPECT_EQ(nameHint("Ключ"), 0u);
    EXPECT_TRUE(sameName("ärger", "ÄRGER"));
    EXPECT_FALSE(sameName("straße", "STRASSE"));
}

} // namespace
} // namespace Platform::Hive
