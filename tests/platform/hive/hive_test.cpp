// Real hives read by our engine and by hivexregedit, a reader we did not write: the same .reg
// text line for line. Damaged hives are refused with the place named, never followed.

#include "platform/core/error.h"
#include "platform/hive/hive.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <random>
#include <sstream>

namespace Platform::Hive {
namespace {

const std::string kFixtures = std::string(SHARED_DIR) + "/fixtures/windows-hives/";

// The fixture decompressed into dir.
std::string unpacked(const TestSupport::TempDir& dir, const std::string& name)
{
    const std::string path = dir.file(name);
    const auto result = TestSupport::run({"sh", "-c", "xz -dc '" + kFixtures + name + ".xz' > '" + path + "'"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return path;
}

std::vector<std::uint8_t> bytesOf(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::optional<std::string> ourExport(std::vector<std::uint8_t> file)
{
    const auto hive = Hive::load(std::move(file));
    const auto root = hive ? hive->root() : std::nullopt;
    std::ostringstream out;
    if (!root || !hive->exportTree(*root, "", out))
        return std::nullopt;
    return out.str();
}

TEST(Hive, CleanHivesExportAsHivexregeditDoes)
{
    TestSupport::TempDir dir;
    for (const char* name : {"SYSTEM", "BCD", "BCD-Template-Win10", "BCD-Template-Win11"}) {
        const std::string path = unpacked(dir, name);
        const auto hive = Hive::load(bytesOf(path));
        ASSERT_TRUE(hive) << name << ": " << Error::text();
        EXPECT_FALSE(hive->base().dirty()) << name;
        const auto ours = ourExport(bytesOf(path));
        ASSERT_TRUE(ours) << name << ": " << Error::text();
        std::string theirs = TestSupport::runTool({"hivexregedit", "--export", path, "\\"});
        const std::string header = "Windows Registry Editor Version 5.00\n\n";
        ASSERT_EQ(theirs.substr(0, header.size()), header);
        theirs.erase(0, header.size());
        EXPECT_EQ(std::count(ours->begin(), ours->end(), '\n'), std::count(theirs.begin(), theirs.end(), '\n'));
        EXPECT_TRUE(*ours == theirs) << name << ": the exports differ";
    }
}

TEST(Hive, KeysAreFoundAsWindowsComparesNames)
{
    TestSupport::TempDir dir;
    const auto hive = Hive::load(bytesOf(unpacked(dir, "SYSTEM")));
    ASSERT_TRUE(hive);
    const auto select = hive->find("sElEcT");
    ASSERT_TRUE(select);
    EXPECT_EQ(select->name, "Select");
    EXPECT_TRUE(hive->find("\\ControlSet001\\control\\ACPI"));
    EXPECT_FALSE(hive->find("ControlSet001\\NoSuchKey"));
    EXPECT_EQ(Error::get(), Error::PathNotFound);
}

TEST(Hive, DamagedHivesAreRefusedWithThePlaceNamed)
{
    TestSupport::TempDir dir;
    auto system = bytesOf(unpacked(dir, "SYSTEM"));
    auto truncated = system;
    truncated.resize(system.size() / 2);
    EXPECT_FALSE(Hive::load(truncated));
    EXPECT_EQ(Error::text(), "the file ends before its hive bins do");

    auto badBin = system;
    badBin[4096 + 4096] = 'X'; // the second bin's signature
    EXPECT_FALSE(Hive::load(badBin));
    EXPECT_EQ(Error::text(), "no hive bin starts at 0x1000");

    auto badCell = system;
    badCell[4096 + 32] = 0x03; // the first cell's size, no longer a multiple of 8
    EXPECT_FALSE(Hive::load(badCell));
    EXPECT_EQ(Error::text().rfind("the cell at 0x20 has the impossible size", 0), 0u) << Error::text();

    auto version = system;
    version[24] = 9;
    EXPECT_FALSE(Hive::load(version));
    EXPECT_EQ(Error::text(), "the hive's version 1.9 is not 1.3 to 1.6");

    // The root's first subkey made the root itself: a walk that followed it would never end.
    auto looped = bytesOf(unpacked(dir, "BCD"));
    const auto store = Hive::load(looped);
    ASSERT_TRUE(store);
    const std::size_t firstSubkey = 4096 + store->root()->subkeyList + 4 + 4; // cell size, "lf", count
    const std::uint32_t root = store->base().rootCell;
    std::memcpy(looped.data() + firstSubkey, &root, 4);
    EXPECT_FALSE(ourExport(looped));
    EXPECT_EQ(Error::text().rfind("the key tree is deeper than 512 levels", 0), 0u) << Error::text();

    const auto corrupted = bytesOf(unpacked(dir, "corrupted_system_hive"));
    if (!ourExport(corrupted)) {
        EXPECT_EQ(Error::get(), Error::Corrupt) << "a refusal says what is wrong";
    }
}

TEST(Hive, FlippedBitsAreReadSafelyOrRefused)
{
    TestSupport::TempDir dir;
    const auto store = bytesOf(unpacked(dir, "BCD"));
    std::mt19937 random(11);
    int refused = 0;
    for (int round = 0; round < 400; ++round) {
        auto flipped = store;
        for (int bit = 0; bit < 4; ++bit) {
            const std::size_t at = 4096 + random() % (flipped.size() - 4096);
            flipped[at] ^= std::uint8_t(1u << (random() % 8));
        }
        Error::set(Error::None);
        if (!ourExport(std::move(flipped))) {
            ++refused;
            EXPECT_EQ(Error::get(), Error::Corrupt);
            EXPECT_FALSE(Error::text().empty());
        }
    }
    EXPECT_GT(refused, 0) << "four flipped bits in a small store break something";
}

} // namespace
} // namespace Platform::Hive
