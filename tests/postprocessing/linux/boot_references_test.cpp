#include "postprocessing/linux/boot_references.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing::Linux {
namespace {

Tools::IdMaps maps()
{
    Tools::IdMaps ids;
    ids.fsIds["c0ffee00-1234-4abc-8def-0123456789ab"] = "0badf00d-5678-4def-9abc-ba9876543210";
    ids.partitionIds["1a2b3c4d-02"] = "5e6f7a8b-02";
    return ids;
}

TEST(BootReferences, ResumeLinesInEveryFormInitramfsToolsReads)
{
    const auto ids = maps();
    EXPECT_EQ(rewriteResumeLine("RESUME=UUID=c0ffee00-1234-4abc-8def-0123456789ab", ids),
              "RESUME=UUID=0badf00d-5678-4def-9abc-ba9876543210");
    EXPECT_EQ(rewriteResumeLine("  RESUME=\"/dev/disk/by-uuid/C0FFEE00-1234-4ABC-8DEF-0123456789AB\"  # swap", ids),
              "  RESUME=\"/dev/disk/by-uuid/0BADF00D-5678-4DEF-9ABC-BA9876543210\"  # swap");
    EXPECT_EQ(rewriteResumeLine("RESUME='PARTUUID=1a2b3c4d-02'", ids), "RESUME='PARTUUID=5e6f7a8b-02'");
    EXPECT_EQ(rewriteResumeLine("ROOT=UUID=c0ffee00-1234-4abc-8def-0123456789ab", ids),
              "ROOT=UUID=0badf00d-5678-4def-9abc-ba9876543210");
    for (const char* kept : {"RESUME=none", "RESUME=/dev/sda2", "# RESUME=UUID=c0ffee00-1234-4abc-8def-0123456789ab",
                             "OTHER=UUID=c0ffee00-1234-4abc-8def-0123456789ab", "RESUME=", ""})
        EXPECT_EQ(rewriteResumeLine(kept, ids), kept);
}

TEST(BootReferences, CrypttabChangesOnlyTheSourceField)
{
    const auto ids = maps();
    EXPECT_EQ(rewriteCrypttabLine("cswap\tPARTUUID=1a2b3c4d-02   /dev/urandom swap", ids),
              "cswap\tPARTUUID=5e6f7a8b-02   /dev/urandom swap");
    // A key file named by id in the third field is not a source.
    EXPECT_EQ(rewriteCrypttabLine("data UUID=deadbeef-0000-4000-8000-000000000000 "
                                  "/dev/disk/by-uuid/c0ffee00-1234-4abc-8def-0123456789ab luks",
                                  ids),
              "data UUID=deadbeef-0000-4000-8000-000000000000 /dev/disk/by-uuid/c0ffee00-1234-4abc-8def-0123456789ab "
              "luks");
    EXPECT_EQ(rewriteCrypttabLine("#cswap PARTUUID=1a2b3c4d-02 /dev/urandom swap", ids),
              "#cswap PARTUUID=1a2b3c4d-02 /dev/urandom swap");
}

TEST(BootReferences, InitramfsMembersAreChosenByWhatTheyConfigure)
{
    const auto ids = maps();
    const std::string resume = "RESUME=UUID=c0ffee00-1234-4abc-8def-0123456789ab\n";
    EXPECT_EQ(rewriteInitramfsMember("conf/conf.d/zz-resume-auto", resume, ids),
              "RESUME=UUID=0badf00d-5678-4def-9abc-ba9876543210\n");
    EXPECT_EQ(rewriteInitramfsMember("cryptroot/crypttab", "cswap PARTUUID=1a2b3c4d-02 none swap", ids),
              "cswap PARTUUID=5e6f7a8b-02 none swap");
    EXPECT_EQ(rewriteInitramfsMember("etc/fstab", "UUID=c0ffee00-1234-4abc-8def-0123456789ab none swap sw 0 0\n", ids),
              "UUID=0badf00d-5678-4def-9abc-ba9876543210 none swap sw 0 0\n");
    EXPECT_EQ(rewriteInitramfsMember("etc/cmdline.d/90resume.conf",
                                     " resume=UUID=c0ffee00-1234-4abc-8def-0123456789ab rd.shell=0\n", ids),
              " resume=UUID=0badf00d-5678-4def-9abc-ba9876543210 rd.shell=0\n");
    // Scripts and binaries are never edited, even when they hold an id; nor is unchanged content.
    EXPECT_FALSE(rewriteInitramfsMember("scripts/local-premount/resume", resume, ids));
    EXPECT_FALSE(rewriteInitramfsMember("conf/conf.d/resume", "RESUME=none\n", ids));
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Linux
