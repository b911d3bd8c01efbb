#include "platform/archive/initramfs.h"

#include "tests/support/command.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace Platform {
namespace {

using TestSupport::runTool;

std::vector<std::uint8_t> slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void save(const std::string& path, const std::vector<std::uint8_t>& bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

class Initramfs : public testing::Test {
protected:
    TestSupport::TempDir dir;

    // A cpio archive of a small tree, in format (newc, or crc: newc with a data checksum).
    std::vector<std::uint8_t> archive(const std::string& format = "newc")
    {
        const std::string tree = dir.file("tree");
        std::filesystem::create_directories(tree + "/conf/conf.d");
        std::ofstream(tree + "/conf/conf.d/resume") << "RESUME=UUID=old\n";
        std::ofstream(tree + "/odd-length") << "12345";
        std::filesystem::create_symlink("odd-length", tree + "/link");
        runTool({"sh", "-c", "cd '" + tree + "' && find . | sort | cpio -o -H " + format + " --quiet > ../a.cpio"});
        std::filesystem::remove_all(tree);
        return slurp(dir.file("a.cpio"));
    }

    static std::optional<std::string> resumeToNew(const std::string& name, std::string_view content)
    {
        if (name != "conf/conf.d/resume")
            return std::nullopt;
        EXPECT_EQ(content, "RESUME=UUID=old\n");
        return std::string("RESUME=UUID=a-much-longer-new-id\n");
    }

    // The files the archive unpacks to, as cpio itself reads it.
    std::string unpack(const std::vector<std::uint8_t>& bytes, const std::string& file)
    {
        save(dir.file("b.cpio"), bytes);
        const std::string out = dir.file("out");
        std::filesystem::remove_all(out);
        std::filesystem::create_directories(out);
        runTool({"sh", "-c", "cd '" + out + "' && cpio -id --quiet < ../b.cpio"});
        std::ifstream in(out + "/" + file, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
};

TEST_F(Initramfs, EditedMembersKeepTheRestOfEveryArchiveByteForByte)
{
    for (const std::string format : {"newc", "crc"}) {
        const auto plain = archive(format);
        // An early archive, zero padding, and the same archive again: every archive is walked.
        std::vector<std::uint8_t> image = plain;
        image.resize(image.size() + 512, 0);
        image.insert(image.end(), plain.begin(), plain.end());
        const auto result = rewriteInitramfs(image, resumeToNew);
        ASSERT_TRUE(result.ok) << result.error;
        ASSERT_TRUE(result.changed);
        EXPECT_EQ(unpack(result.image, "conf/conf.d/resume"), "RESUME=UUID=a-much-longer-new-id\n") << format;
        EXPECT_EQ(unpack(result.image, "odd-length"), "12345");
        // cpio -t reads the first archive; with checksums it verifies them on the way.
        save(dir.file("c.cpio"), result.image);
        const auto listing = TestSupport::run({"sh", "-c", "cpio -it < '" + dir.file("c.cpio") + "'"});
        EXPECT_EQ(listing.exitCode, 0);
        EXPECT_EQ(listing.err.find("checksum error"), std::string::npos) << listing.err;
        // The grown member moved what follows by a multiple of four; nothing else differs.
        EXPECT_EQ((result.image.size() - image.size()) % 4, 0u);

        const auto untouched =
            rewriteInitramfs(image, [](const std::string&, std::string_view) { return std::optional<std::string>(); });
        EXPECT_TRUE(untouched.ok);
        EXPECT_FALSE(untouched.changed);
    }
}

TEST_F(Initramfs, DamagedArchivesAndUnwritableCompressionsAreRefused)
{
    const auto plain = archive();
    const auto refused = [&](std::vector<std::uint8_t> image, const std::string& why) {
        const auto result = rewriteInitramfs(image, resumeToNew);
        EXPECT_FALSE(result.ok) << why;
        EXPECT_FALSE(result.changed) << why;
        EXPECT_TRUE(result.image.empty()) << why;
        EXPECT_NE(result.error.find(why), std::string::npos) << why << ": " << result.error;
    };
    refused({plain.begin(), plain.begin() + 300}, "cpio"); // cut inside a member
    const std::string trailer = "TRAILER!!!";
    const auto at = std::search(plain.begin(), plain.end(), trailer.begin(), trailer.end());
    refused({plain.begin(), at - 110}, "trailer"); // every member there, the trailer record not
    auto badField = plain;
    badField[6 + 8 * 6] = 'x'; // the first member's size
    refused(badField, "not hex");
    auto hugeName = plain;
    std::copy_n("FFFFFFF0", 8, hugeName.begin() + 6 + 8 * 11); // its name size
    refused(hugeName, "name");
    refused(std::vector<std::uint8_t>(plain.begin(), plain.end()) = {'M', 'Z', 1, 2, 3}, "neither cpio nor compressed");

    save(dir.file("a.bz2.src"), plain);
    runTool({"sh", "-c", "bzip2 -c '" + dir.file("a.bz2.src") + "' > '" + dir.file("a.bz2") + "'"});
    refused(slurp(dir.file("a.bz2")), "cannot be written again");
    runTool({"sh", "-c", "gzip -c '" + dir.file("a.bz2.src") + "' > '" + dir.file("a.gz") + "'"});
    auto cutGzip = slurp(dir.file("a.gz"));
    cutGzip.resize(cutGzip.size() / 2);
    refused(cutGzip, "truncated gzip");
}

} // namespace
} // namespace Platform
