// A new boot configuration store made from the real BCD-Template fixtures for the Windows on a
// disk whose partitions are host folders: the entries, their order and default, the resume entry,
// the devices (read back as raw bytes with hivexget) and the template's objects removed.

#include "postprocessing/windows/bcd_creation.h"

#include "platform/core/guid.h"
#include "platform/fs/filesys.h"
#include "platform/log/log.h"
#include "platform/windows/bcd_listing.h"
#include "platform/windows/system_hives.h"
#include "postprocessing/keeper_entries.h"
#include "tests/support/command.h"
#include "tests/support/keeper_builder.h"
#include "tests/support/windows_tree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

namespace Libraries::KRO::PostProcessing::Windows {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Platform::Windows::ObjectListing;

Bytes guidBytes(std::string_view text)
{
    const auto guid = Platform::guidFromText(text);
    return {guid.begin(), guid.end()};
}

const Bytes kDisk = guidBytes("0b2394a9-095e-487d-8d48-719ecd4d78ca");
const Bytes kEfi = guidBytes("36be3955-63bf-4068-a6ab-00195cca3a22");
const Bytes kWindows7 = guidBytes("8e0f2c38-e4ea-47ba-b7fc-9d8c74dccf0b");
const Bytes kWindows10 = guidBytes("6cdfcd69-de75-4490-8f99-5a84bf264917");

// The 88-byte partition device of a GPT partition, as Windows writes it.
Bytes partitionDevice(const Bytes& partition)
{
    Bytes device(88, 0);
    device[16] = 6;
    device[24] = 0x48;
    std::copy(partition.begin(), partition.end(), device.begin() + 32);
    std::copy(kDisk.begin(), kDisk.end(), device.begin() + 56);
    return device;
}

class BcdCreation : public ::testing::Test {
protected:
    // One folder per partition: the EFI partition first, then a Windows per (name, major, minor).
    Ref<Keeper> diskWith(const std::vector<std::tuple<std::string, unsigned, unsigned, Bytes>>& windows)
    {
        std::vector<std::string> roots{folder("esp")};
        for (const auto& [name, major, minor, id] : windows) {
            const std::string root = folder("win" + std::to_string(roots.size()));
            std::filesystem::create_directories(root + "/Windows/System32/config");
            TestSupport::writeSoftwareHive(root + "/Windows/System32/config/SOFTWARE", name, major, minor, "7601");
            TestSupport::unpackHive(major >= 10 ? "BCD-Template-Win11" : "BCD-Template-Win10",
                                    root + "/Windows/System32/config/BCD-Template");
            roots.push_back(root);
        }
        auto keeper = TestSupport::keeperForFolders(roots, {StepCreateBcd});
        const u64 disk = *entriesOf(*keeper, KindDisk).begin();
        keeper->addObjectEntry(KindDiskIdChange, ByteArray::create(kDisk), ByteArray::create(kDisk), disk, 0);
        // The keeper hands out its slots in no particular order: the partitions are told by path,
        // and each gets the start it would have on a disk, in the order of roots.
        for (const u64 partition : entriesOf(*keeper, KindPartition, disk)) {
            const std::string root = *keeper->getTo(partition).front().asString();
            const std::size_t index = std::find(roots.begin(), roots.end(), root) - roots.begin();
            const Bytes& id = index == 0 ? kEfi : std::get<3>(windows[index - 1]);
            keeper->addObjectEntry(KindPartitionUuidChange, nullptr, ByteArray::create(id), partition, 0);
            keeper->addEntry(KindPartitionOffset, {}, {Variant::integer(2048 + index * 204800)}, partition, 0);
            if (index == 0)
                keeper->addEntry(KindEfiMarker, {Variant::integer(1)}, {}, partition, 0);
        }
        return keeper;
    }
    void nameTemplate(const Ref<Keeper>& keeper, const std::string& windowsRoot)
    {
        const u64 mapping = keeper->addEntry(KindBcdPath, {Variant::string("/Windows/System32/config/BCD-Template")},
                                             {Variant::string("/EFI/Microsoft/Boot/BCD")}, 0, 0);
        keeper->addObjectEntry(KindBcdTemplateFs, nullptr,
                               Platform::Filesys::create(windowsRoot, 0, Platform::Access::ReadOnly), mapping, 0);
    }
    std::string folder(const std::string& name)
    {
        std::filesystem::create_directories(dir.file(name) + "/EFI/Microsoft/Boot");
        return dir.file(name);
    }
    std::string store() const { return dir.file("esp") + "/EFI/Microsoft/Boot/BCD"; }
    std::map<std::string, ObjectListing> objects() const
    {
        const auto fs = Platform::Filesys::create(dir.file("esp"), 0, Platform::Access::ReadOnly);
        const auto hive = Platform::Windows::Utils::openMachineHive(fs, "/EFI/Microsoft/Boot/BCD", false);
        std::map<std::string, ObjectListing> found;
        const auto listing = hive ? Platform::Windows::listBootStore(*hive) : std::nullopt;
        for (const auto& object : listing.value_or(std::vector<ObjectListing>{}))
            found[object.guid] = object;
        return found;
    }
    static std::string text(const ObjectListing& object, const std::string& id)
    {
        for (const auto& element : object.elements)
            if (element.id == id && element.text)
                return *element.text;
        return "(missing)";
    }
    static std::vector<std::string> list(const ObjectListing& object, const std::string& id)
    {
        for (const auto& element : object.elements)
            if (element.id == id)
                return element.objects;
        return {};
    }
    Bytes device(const std::string& object, const std::string& element) const
    {
        const auto result =
            TestSupport::run({"hivexget", store(), "\\Objects\\" + object + "\\Elements\\" + element, "Element"});
        return {result.out.begin(), result.out.end()};
    }

    TestSupport::TempDir dir;
    Platform::ScopedLogCapture log;
};

TEST_F(BcdCreation, TwoWindowsGetEntriesInPartitionOrderTheNewestIsDefaultAndTheTemplateObjectsGo)
{
    const auto keeper = diskWith({{"Windows 7 Professional", 6, 1, kWindows7}, {"Windows 10 Pro", 10, 0, kWindows10}});
    nameTemplate(keeper, dir.file("win2"));
    ASSERT_EQ(createBCD(keeper), StepResult::Ok);

    auto found = objects();
    const auto& manager = found.at("{9dea862c-5cdd-4e70-acc1-f32b344d4795}");
    const auto order = list(manager, "24000001");
    ASSERT_EQ(order.size(), 2u);
    EXPECT_EQ(text(found.at(order[0]), "12000004"), "Windows 7 Professional");
    EXPECT_EQ(text(found.at(order[1]), "12000004"), "Windows 10 Pro");
    EXPECT_EQ(text(manager, "23000003"), order[1]) << "10.0 is newer than 6.1";
    EXPECT_EQ(device("{9dea862c-5cdd-4e70-acc1-f32b344d4795}", "11000001"), partitionDevice(kEfi));
    EXPECT_EQ(device(order[0], "11000001"), partitionDevice(kWindows7));
    EXPECT_EQ(device(order[0], "21000001"), partitionDevice(kWindows7));
    EXPECT_EQ(device(order[1], "21000001"), partitionDevice(kWindows10));

    // The EFI resume template becomes the default's resume entry; the BIOS one is removed.
    const std::string resume = text(manager, "23000006");
    ASSERT_TRUE(found.count(resume)) << resume;
    EXPECT_EQ(text(found.at(resume), "12000002"), "\\system32\\winresume.efi");
    EXPECT_EQ(device(resume, "21000001"), partitionDevice(kWindows10));
    for (const char* gone : {"{466f5a88-0af2-4f76-9038-095b170dc21c}", "{7254a080-1510-4e85-ac0f-e7fb3d444736}",
                             "{cbd971bf-b7b8-4885-951a-fa03044f5d71}", "{a1943bbc-ea85-487c-97c7-c9ede908a38a}",
                             "{b012b84d-c47c-4ed5-b722-c0c42163e569}", "{98b02a23-0674-4ce7-bdad-e0a15a8ff97b}"})
        EXPECT_EQ(found.count(gone), 0u) << gone;
    EXPECT_EQ(TestSupport::run({"hivexregedit", "--export", store(), "\\"}).exitCode, 0);
}

TEST_F(BcdCreation, OfTwoEqualVersionsTheFirstIsDefaultAndADiskWithoutEfiPartitionFails)
{
    auto keeper = diskWith({{"Windows 10 Pro", 10, 0, kWindows7}, {"Windows 10 Home", 10, 0, kWindows10}});
    nameTemplate(keeper, dir.file("win1"));
    ASSERT_EQ(createBCD(keeper), StepResult::Ok);
    auto found = objects();
    const auto& manager = found.at("{9dea862c-5cdd-4e70-acc1-f32b344d4795}");
    EXPECT_EQ(text(found.at(text(manager, "23000003")), "12000004"), "Windows 10 Pro");

    // A second disk with Windows and no EFI partition: the step fails, the first disk is done.
    const u64 disk = keeper->addEntry(KindDisk, {}, {}, 0, 0);
    keeper->addEntry(KindPartition, {}, {Variant::string(dir.file("win1"))}, disk, 0);
    std::filesystem::remove(store());
    EXPECT_EQ(createBCD(keeper), StepResult::Failed);
    EXPECT_TRUE(std::filesystem::exists(store()));
}

TEST_F(BcdCreation, WithoutATemplateMappingNothingIsFoundAndAMissingTemplateFails)
{
    auto keeper = diskWith({{"Windows 10 Pro", 10, 0, kWindows10}});
    EXPECT_EQ(createBCD(keeper), StepResult::NothingFound);
    EXPECT_TRUE(log.sink().contains("PP Win", Platform::LogError, "No BCD path mapping ID"));
    const u64 mapping = keeper->addEntry(KindBcdPath, {Variant::string("/nowhere/BCD-Template")},
                                         {Variant::string("/EFI/Microsoft/Boot/BCD")}, 0, 0);
    keeper->addObjectEntry(KindBcdTemplateFs, nullptr,
                           Platform::Filesys::create(dir.file("win1"), 0, Platform::Access::ReadOnly), mapping, 0);
    EXPECT_EQ(createBCD(keeper), StepResult::Failed);
    EXPECT_TRUE(
        log.sink().contains("PP Win", Platform::LogError, "Failed to open BCD on source: /nowhere/BCD-Template"));
    EXPECT_FALSE(std::filesystem::exists(store()));
}

} // namespace
} // namespace Libraries::KRO::PostProcessing::Windows
