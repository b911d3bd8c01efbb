// Where files lie, as the facades report it, against the sectors the family's own tools put them
// in: files written by mtools, debugfs and ntfscp, fragmented by a file removed in between.

#include "platform/core/error.h"
#include "platform/core/string_util.h"
#include "platform/fs/filesys.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <random>
#include <sstream>

namespace Platform {
namespace {

constexpr std::uint64_t kSector = 512;

struct Family {
    std::string name;
    std::vector<std::string> mkfs;
    // Puts a host file into the image under a name, removes a name.
    std::function<void(const std::string& image, const std::string& from, const std::string& name)> put;
    std::function<void(const std::string& image, const std::string& name)> remove;
    // The sectors the family's tools say a file lies in, trimmed to the file; empty when there is
    // no such tool.
    std::function<std::vector<Area>(const std::string& image, const std::string& name, std::uint64_t size)> listing;
    // Leaves the family's allocator no choice but the hole a removed file leaves; null when it
    // takes holes anyway.
    std::function<void(const std::string& image, const TestSupport::TempDir& dir)> crowd = nullptr;
};

void PrintTo(const Family& family, std::ostream* out)
{
    *out << family.name;
}

// Runs of sectors, joined where they continue each other and cut at the file's last sector.
std::vector<Area> trimmed(const std::vector<Area>& runs, std::uint64_t size)
{
    std::uint64_t missing = (size + kSector - 1) / kSector;
    std::vector<Area> areas;
    for (Area run : runs) {
        run.count = std::min(run.count, missing);
        missing -= run.count;
        if (run.count == 0)
            break;
        if (!areas.empty() && areas.back().start + areas.back().count == run.start)
            areas.back().count += run.count;
        else
            areas.push_back(run);
    }
    return areas;
}

std::uint64_t hex(const std::string& text)
{
    return std::stoull(text, nullptr, 16);
}

// debugfs' "blocks" list of one file, in 1 KiB or larger blocks.
std::vector<Area> extListing(const std::string& image, const std::string& name, std::uint64_t size)
{
    const std::string stats = TestSupport::runTool({"debugfs", "-R", "stats", image});
    const auto at = stats.find("Block size:");
    const std::uint64_t blockSize = std::stoull(stats.substr(stats.find_first_of("0123456789", at)));
    std::istringstream blocks(TestSupport::runTool({"debugfs", "-R", "blocks " + name, image}));
    std::vector<Area> runs;
    for (std::uint64_t block = 0; blocks >> block;)
        runs.push_back({block * blockSize / kSector, blockSize / kSector});
    return trimmed(runs, size);
}

std::uint64_t ntfsNumber(const std::string& image, const std::string& label)
{
    const std::string volume = TestSupport::runTool({"ntfsinfo", "-m", image});
    return std::stoull(volume.substr(volume.find_first_of("0123456789", volume.find(label))));
}

// ntfsinfo's runlist of the file's data.
std::vector<Area> ntfsListing(const std::string& image, const std::string& name, std::uint64_t size)
{
    const std::uint64_t clusterSize = ntfsNumber(image, "Cluster Size:");
    std::istringstream info(TestSupport::runTool({"ntfsinfo", "-v", "-F", name, image}));
    std::vector<Area> runs;
    bool inRunlist = false;
    for (std::string line; std::getline(info, line);) {
        if (line.find("Runlist:") != std::string::npos) {
            inRunlist = true;
            continue;
        }
        std::istringstream fields(line);
        std::string vcn, lcn, length;
        if (!inRunlist || !(fields >> vcn >> lcn >> length) || !StringUtil::startsWith(vcn, "0x"))
            inRunlist = false;
        else
            runs.push_back({hex(lcn) * clusterSize / kSector, hex(length) * clusterSize / kSector});
    }
    return trimmed(runs, size);
}

// libntfs-3g places new data behind what it placed last: fill the volume up to 100 clusters.
void crowdNtfs(const std::string& image, const TestSupport::TempDir& dir)
{
    const std::uint64_t clusterSize = ntfsNumber(image, "Cluster Size:");
    TestSupport::createImage(dir.file("filler"), (ntfsNumber(image, "Free Clusters:") - 100) * clusterSize);
    TestSupport::runTool({"ntfscp", image, dir.file("filler"), "/filler"});
}

void mtoolsPut(const std::string& image, const std::string& from, const std::string& name)
{
    TestSupport::runTool({"mcopy", "-i", image, from, "::" + name});
    // Without the FSInfo hint mtools looks for free clusters from the start, and so fills holes.
    std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(512 + 0x1EC);
    file.write("\xFF\xFF\xFF\xFF", 4);
}

void mtoolsRemove(const std::string& image, const std::string& name)
{
    TestSupport::runTool({"mdel", "-i", image, "::" + name});
}

const std::vector<Family>& families()
{
    static const std::vector<Family> all{
        {"fat16", {"mkfs.fat", "-F", "16"}, mtoolsPut, mtoolsRemove, nullptr},
        {"fat32", {"mkfs.fat", "-F", "32", "-s", "1"}, mtoolsPut, mtoolsRemove, nullptr},
        {"ext4",
         {"mkfs.ext4", "-q", "-F", "-b", "1024"},
         [](const std::string& image, const std::string& from, const std::string& name) {
             TestSupport::runTool({"debugfs", "-w", "-R", "write " + from + " " + name, image});
         },
         [](const std::string& image, const std::string& name) {
             TestSupport::runTool({"debugfs", "-w", "-R", "rm " + name, image});
         },
         extListing},
        {"ntfs",
         {"mkntfs", "-F", "-f", "-q"},
         [](const std::string& image, const std::string& from, const std::string& name) {
             TestSupport::runTool({"ntfscp", image, from, name});
         },
         [](const std::string& image, const std::string& name) {
             // ntfs-3g ships no remover; ours is covered by the facade tests.
             const auto fs = Filesys::create(image, OpenFlags::FileSystemByPath, Access::ReadWrite);
             ASSERT_TRUE(fs && fs->removeFile(name));
         },
         ntfsListing,
         crowdNtfs},
    };
    return all;
}

class Allocation : public testing::TestWithParam<Family> {
protected:
    void SetUp() override
    {
        image = dir.file("fs.img");
        TestSupport::createImage(image, 64ull << 20);
        auto mkfs = GetParam().mkfs;
        mkfs.push_back(image);
        TestSupport::runTool(mkfs);
    }

    std::string hostFile(const std::string& name, std::size_t bytes)
    {
        std::mt19937 random{unsigned(bytes)};
        std::string data(bytes, '\0');
        for (auto& byte : data)
            byte = char(random());
        std::ofstream(dir.file(name), std::ios::binary) << data;
        return data;
    }

    std::string contentsAt(const std::vector<Area>& areas, std::size_t size)
    {
        std::string data;
        for (const Area& area : areas) {
            const auto bytes = TestSupport::readAt(image, area.start * kSector, area.count * kSector);
            data.append(bytes.begin(), bytes.end());
        }
        return data.substr(0, size);
    }

    TestSupport::TempDir dir;
    std::string image;
};

TEST_P(Allocation, AFragmentedFileIsFoundWhereTheFamilysToolsPutIt)
{
    const Family& family = GetParam();
    hostFile("part", 20000);
    for (const char* name : {"/a", "/b", "/c"})
        family.put(image, dir.file("part"), name);
    if (family.crowd)
        family.crowd(image, dir);
    family.remove(image, "/b");
    const std::string big = hostFile("big", 300000);
    family.put(image, dir.file("big"), "/big");

    for (const Access access : {Access::ReadOnly, Access::ReadWrite}) {
        const auto fs = Filesys::create(image, OpenFlags::FileSystemByPath, access);
        ASSERT_TRUE(fs);
        const auto file = fs->openFile("/big", OpenFlags::Read);
        ASSERT_TRUE(file);
        const auto areas = file->allocation();
        ASSERT_TRUE(areas) << Error::text();
        EXPECT_GT(areas->size(), 1u) << "the file was to be fragmented";
        EXPECT_EQ(contentsAt(*areas, big.size()), big);
        std::uint64_t sectors = 0;
        for (const Area& area : *areas)
            sectors += area.count;
        EXPECT_EQ(sectors, (big.size() + kSector - 1) / kSector) << "sectors past the end are left out";
        if (family.listing) {
            EXPECT_EQ(*areas, family.listing(image, "/big", big.size()));
        }
    }
}

TEST_P(Allocation, SmallAndEmptyFilesAreToldOrRefusedClearly)
{
    const Family& family = GetParam();
    const std::string small = hostFile("small", 100);
    hostFile("empty", 0);
    family.put(image, dir.file("small"), "/small");
    family.put(image, dir.file("empty"), "/empty");
    const auto fs = Filesys::create(image, OpenFlags::FileSystemByPath, Access::ReadOnly);
    ASSERT_TRUE(fs);

    const auto empty = fs->openFile("/empty", OpenFlags::Read)->allocation();
    const auto smallAreas = fs->openFile("/small", OpenFlags::Read)->allocation();
    if (family.name == "ntfs") { // a small file lives in its MFT record
        EXPECT_FALSE(smallAreas);
        EXPECT_EQ(Error::get(), Error::NotSupported);
        EXPECT_EQ(Error::text(), "the file's data is kept inside its record");
        return;
    }
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->empty());
    ASSERT_TRUE(smallAreas);
    ASSERT_EQ(smallAreas->size(), 1u);
    EXPECT_EQ(smallAreas->front().count, 1u);
    EXPECT_EQ(contentsAt(*smallAreas, small.size()), small);
}

INSTANTIATE_TEST_SUITE_P(Families, Allocation, testing::ValuesIn(families()),
                         [](const auto& param) { return param.param.name; });

TEST(AllocationOf, FilesWithHolesAndHostFilesAreNotSupported)
{
    TestSupport::TempDir dir;
    const std::string image = dir.file("ext.img");
    TestSupport::createImage(image, 16ull << 20);
    TestSupport::runTool({"mkfs.ext4", "-q", "-F", image});
    const std::string sparse = dir.file("sparse");
    TestSupport::createImage(sparse, 1 << 20);
    std::ofstream(sparse, std::ios::app) << "end";
    TestSupport::runTool({"debugfs", "-w", "-R", "write " + sparse + " /sparse", image});

    const auto ext = Filesys::create(image, OpenFlags::FileSystemByPath, Access::ReadOnly);
    ASSERT_TRUE(ext);
    EXPECT_FALSE(ext->openFile("/sparse", OpenFlags::Read)->allocation());
    EXPECT_EQ(Error::get(), Error::NotSupported);
    EXPECT_EQ(Error::text(), "the file has holes");

    const auto host = Filesys::create(dir.path().string(), OpenFlags::FileSystemByPath, Access::ReadOnly);
    ASSERT_TRUE(host);
    EXPECT_FALSE(host->openFile("/sparse", OpenFlags::Read)->allocation());
    EXPECT_EQ(Error::get(), Error::NotSupported);
}

} // namespace
} // namespace Platform
