#include "cli/report.h"

#include "cli/options.h"
#include "cli/plan.h"
#include "tests/support/command.h"

#include <gtest/gtest.h>

namespace Cli {
namespace {

namespace PP = Libraries::KRO::PostProcessing;

Platform::Ref<PP::ByteArray> bytes(std::vector<PP::u8> values)
{
    return PP::ByteArray::create(values);
}

TEST(Report, MappingsShowEachKindAsItsToolsDo)
{
    auto keeper = PP::Keeper::create();
    const std::vector<PP::u8> uuid{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                   0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    keeper->addObjectEntry(PP::KindDiskIdChange, bytes({0x4D, 0x3C, 0x2B, 0x1A}), bytes({1, 0, 0, 0}), 15, 0);
    keeper->addObjectEntry(PP::KindPartitionUuidChange, nullptr, bytes(uuid), 14, 0);
    keeper->addObjectEntry(PP::KindVolumeIdChange, bytes(uuid), bytes({0x78, 0x56, 0x34, 0x12}), 13, 0);

    const auto mappings = recordedMappings(*keeper);
    ASSERT_EQ(mappings.size(), 3u);
    EXPECT_EQ(mappings[0].oldId, "1a2b3c4d");
    EXPECT_EQ(mappings[0].newId, "00000001");
    EXPECT_EQ(mappings[1].oldId, "");
    EXPECT_EQ(mappings[1].newId, "33221100-5544-7766-8899-AABBCCDDEEFF");
    EXPECT_EQ(mappings[2].oldId, "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(mappings[2].newId, "1234-5678");
    EXPECT_EQ(mappings[2].entry, 13u);

    EXPECT_NE(jsonReport(*keeper).find("\"old\": null"), std::string::npos);
}

TEST(Report, FailedStepMakesTheRunFail)
{
    auto keeper = PP::Keeper::create();
    EXPECT_FALSE(anyStepFailed(*keeper));
    keeper->setResult(PP::StepFstab, PP::StepResult::Failed);
    EXPECT_TRUE(anyStepFailed(*keeper));
    EXPECT_NE(textReport(*keeper).find("fstab               Adjusting linux fstab               FAILED"),
              std::string::npos);
}

TEST(Plan, SwitchesApplyAfterThePresetInCommandLineOrderAndDisksCarryTheirSettings)
{
    TestSupport::TempDir dir;
    const std::string t1 = dir.file("t1"), t2 = dir.file("t2"), src = dir.file("src");
    for (const auto& path : {t1, t2, src})
        TestSupport::createImage(path, 1 << 20);
    const char* argv[] = {"postclone", "--preset",  "3",         "--disable",  "fstab",      "--enable",
                          "fstab",     "--disable", "ide",       "--geometry", "1023,16,63", "--computer-name",
                          "NEWPC",     "--source",  src.c_str(), t1.c_str(),   t2.c_str()};
    const auto parsed = parseCommandLine(int(std::size(argv)), const_cast<char**>(argv));
    ASSERT_TRUE(parsed.options) << parsed.error;
    const auto keeper = buildKeeper(*parsed.options);

    EXPECT_TRUE(keeper->isEnabled(PP::StepFstab));
    EXPECT_FALSE(keeper->isEnabled(PP::StepIde));
    EXPECT_TRUE(keeper->isEnabled(PP::StepAhci));

    const PP::u64 first = keeper->findNext(PP::KindDisk, 0, 0);
    const PP::u64 second = keeper->findNext(PP::KindDisk, first, 0);
    ASSERT_NE(second, 0u);
    // Newest entries have the lowest indices: the second target comes first in index order.
    EXPECT_EQ(*keeper->getTo(second)[0].asString(), t1);
    EXPECT_EQ(*keeper->getFrom(second)[0].asString(), src);
    EXPECT_EQ(*keeper->getTo(first)[0].asString(), t2);
    EXPECT_TRUE(keeper->getFrom(first).empty());

    const PP::u64 geometry = keeper->findNext(PP::KindDiskGeometry, 0, second);
    ASSERT_NE(geometry, 0u);
    EXPECT_EQ(keeper->getTo(geometry)[0].item("HEAD")->asInteger(), 16u);
    const PP::u64 name = keeper->findNext(PP::KindComputerName, 0, first);
    ASSERT_NE(name, 0u);
    EXPECT_EQ(*keeper->getTo(name)[0].asString(), "NEWPC");
}

} // namespace
} // namespace Cli
