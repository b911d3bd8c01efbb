// The volume adjuster on the real fixtures: the boot configuration store of a Windows 10 UEFI
// installation after a new disk GUID and new partition GUIDs, and the MountedDevices records of a
// real SYSTEM hive after a new disk signature and a partition moved. Every result is read back
// as raw bytes with hivexget.

#include "platform/windows/adjust_volumes.h"

#include "platform/log/log.h"
#include "platform/windows/bcd_listing.h"
#include "platform/windows/mounted_devices.h"
#include "platform/windows/system_hives.h"
#include "tests/support/command.h"
#include "tests/support/windows_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

namespace Platform::Windows {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes guidBytes(std::string_view text)
{
    const Guid guid = guidFromText(text);
    return {guid.begin(), guid.end()};
}

Ref<ByteArray> array(const Bytes& bytes)
{
    return ByteArray::create(bytes);
}

Bytes rawValue(const std::string& hive, const std::string& key, const std::string& value)
{
    const auto result = TestSupport::run({"hivexget", hive, key, value});
    EXPECT_EQ(result.exitCode, 0) << key << " " << value << ": " << result.err;
    return {result.out.begin(), result.out.end()};
}

std::size_t countOf(const Bytes& data, const Bytes& needle)
{
    std::size_t count = 0;
    for (auto at = data.begin(); (at = std::search(at, data.end(), needle.begin(), needle.end())) != data.end(); ++at)
        ++count;
    return count;
}

// The ids the real store names: its disk, and the EFI, Windows and recovery partitions on it.
const Bytes kOldDisk = guidBytes("0b2394a9-095e-487d-8d48-719ecd4d78ca");
const Bytes kOldPartitions[] = {guidBytes("36be3955-63bf-4068-a6ab-00195cca3a22"),
                                guidBytes("8e0f2c38-e4ea-47ba-b7fc-9d8c74dccf0b"),
                                guidBytes("6cdfcd69-de75-4490-8f99-5a84bf264917")};
const Bytes kNewDisk = guidBytes("11111111-2222-4333-8444-555555555555");
const Bytes kNewPartitions[] = {guidBytes("aaaaaaaa-0001-4000-8000-000000000001"),
                                guidBytes("aaaaaaaa-0002-4000-8000-000000000002"),
                                guidBytes("aaaaaaaa-0003-4000-8000-000000000003")};

class VolumeAdjuster : public ::testing::Test {
protected:
    TestSupport::TempDir dir;
    ScopedLogCapture log;
};

TEST_F(VolumeAdjuster, EveryDeviceOfTheRealStoreNamesTheNewDiskAndPartitionsAndNothingElseChanges)
{
    // Found in any letter case.
    const std::filesystem::path folder = dir.path() / "efi" / "microsoft" / "BOOT";
    std::filesystem::create_directories(folder);
    const std::string store = (folder / "bcd").string();
    TestSupport::unpackHive("BCD", store);
    const auto fs = Filesys::create(dir.path().string(), 0, Access::ReadWrite);

    // Every device element with its bytes before the run, as hivexget returns them.
    std::map<std::string, Bytes> before;
    {
        const auto hive = Utils::openMachineHive(fs, "/efi/microsoft/BOOT/bcd", false);
        ASSERT_TRUE(hive);
        const auto listing = listBootStore(*hive);
        ASSERT_TRUE(listing);
        for (const auto& object : *listing)
            for (const auto& element : object.elements)
                if (element.format == ElementFormat::Device) {
                    const std::string key = "\\Objects\\" + object.guid + "\\Elements\\" + element.id;
                    before[key] = rawValue(store, key, "Element");
                }
    }
    ASSERT_EQ(before.size(), 12u) << "bootmgr, memdiag, three firmware entries, resume, two loaders, options";

    const auto adjuster = AdjustWindowsVolumes::create(array(kOldDisk), array(kNewDisk));
    ASSERT_TRUE(adjuster);
    for (std::size_t i = 0; i < 3; ++i)
        ASSERT_TRUE(
            adjuster->addMapping(array(kOldPartitions[i]), array(kNewPartitions[i]), array(kOldDisk), array(kNewDisk)));
    ASSERT_TRUE(adjuster->adjustBcd(fs));

    std::size_t ramdisks = 0, onThisDisk = 0;
    for (const auto& [key, old] : before) {
        const Bytes now = rawValue(store, key, "Element");
        ASSERT_EQ(now.size(), old.size()) << key;
        EXPECT_EQ(countOf(now, kOldDisk), 0u) << key;
        // Where an old id stood, its new one stands; every other byte is as it was.
        Bytes expected = old;
        const auto replace = [&](const Bytes& from, const Bytes& to) {
            for (auto at = expected.begin();
                 (at = std::search(at, expected.end(), from.begin(), from.end())) != expected.end();)
                at = std::copy(to.begin(), to.end(), at);
        };
        if (countOf(old, kOldDisk) > 0)
            ++onThisDisk;
        replace(kOldDisk, kNewDisk);
        for (std::size_t i = 0; i < 3; ++i)
            replace(kOldPartitions[i], kNewPartitions[i]);
        EXPECT_EQ(now, expected) << key;
        if (countOf(now, kNewPartitions[2]) > 0 && old.size() > 88)
            ++ramdisks;
    }
    EXPECT_EQ(onThisDisk, 9u) << "the three firmware entries name another disk and stay";
    EXPECT_EQ(ramdisks, 2u) << "the recovery loader's application and OS devices";
    EXPECT_EQ(
        countOf(rawValue(store, "\\Objects\\{733b62e7-f608-11eb-825c-c112f60133ab}\\Elements\\31000003", "Element"),
                kNewPartitions[2]),
        1u)
        << "the recovery options object";
    const auto check = TestSupport::run({"hivexregedit", "--export", store, "\\"});
    EXPECT_EQ(check.exitCode, 0) << check.err;
}

TEST_F(VolumeAdjuster, DriveLettersFollowTheNewSignatureAndTheMovedPartitionOnlyOnTheirDisk)
{
    TestSupport::WindowsTree windows(dir.file("win"), "SYSTEM");
    const Bytes oldSignature{0x3e, 0xa0, 0xbe, 0x5c};
    const Bytes newSignature{0x44, 0x33, 0x22, 0x11};
    const Bytes at63{0x00, 0x7e, 0, 0, 0, 0, 0, 0}; // 63 * 512 = 32256
    const Bytes at2048{0x00, 0x00, 0x10, 0, 0, 0, 0, 0};
    const auto join = [](Bytes a, const Bytes& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    const Bytes otherDisk = join({0xdd, 0xcc, 0xbb, 0xaa}, at63);
    const std::string volume = "\\??\\Volume{656b1715-ecf6-11df-92e6-806e6f6e6963}";
    {
        // As it was before the copy: C: at sector 63, and a second disk's volume at the same offset.
        const auto hive = windows.openSystemHive();
        const auto records = hive->root()->subkey("MountedDevices");
        ASSERT_TRUE(records->value("\\DosDevices\\C:")->setData(3, join(oldSignature, at63)));
        ASSERT_TRUE(records->value(volume)->setData(3, join(oldSignature, at63)));
        ASSERT_TRUE(records->createValue("\\DosDevices\\F:", 3)->setData(3, otherDisk));
        ASSERT_TRUE(hive->flush());
    }
    const std::string hive = windows.systemHive();
    const Bytes cdrom = rawValue(hive, "\\MountedDevices", "\\DosDevices\\D:");

    const auto adjuster = AdjustWindowsVolumes::create(array(oldSignature), array(newSignature));
    ASSERT_TRUE(adjuster->addMapping(array(at63), array(at2048), array(oldSignature), array(newSignature)));
    ASSERT_TRUE(adjuster->adjustMountedDevices(Filesys::create(windows.root(), 0, Access::ReadWrite), nullptr));

    EXPECT_EQ(rawValue(hive, "\\MountedDevices", "\\DosDevices\\C:"), join(newSignature, at2048));
    EXPECT_EQ(rawValue(hive, "\\MountedDevices", volume), join(newSignature, at2048));
    EXPECT_EQ(rawValue(hive, "\\MountedDevices", "\\DosDevices\\F:"), otherDisk) << "another disk's record";
    EXPECT_EQ(rawValue(hive, "\\MountedDevices", "\\DosDevices\\D:"), cdrom) << "a device path";
}

TEST_F(VolumeAdjuster, AMigrationToGptTurnsAnMbrRecordIntoAPartitionGuidAndRefusesOddIds)
{
    EXPECT_FALSE(AdjustWindowsVolumes::create(array(Bytes(8, 1)), array(Bytes(4, 1)))) << "8-byte disk id";
    const Bytes signature{1, 2, 3, 4}, offset{0, 0, 0x10, 0, 0, 0, 0, 0};
    const auto adjuster = AdjustWindowsVolumes::create(array(signature), array(kNewDisk));
    EXPECT_FALSE(adjuster->addMapping(array(offset), array(Bytes(4, 0)), array(signature), array(kNewDisk)));
    ASSERT_TRUE(adjuster->addMapping(array(offset), array(kNewPartitions[1]), array(signature), array(kNewDisk)));

    const auto migrated = adjuster->map({signature, offset});
    ASSERT_TRUE(migrated);
    const Bytes record = encodeMountedDevice(*migrated);
    const auto decoded = decodeMountedDevice(record);
    EXPECT_EQ(record.size(), 24u);
    EXPECT_EQ(decoded.form, MountedDevice::Form::GptPartition);
    EXPECT_TRUE(std::equal(kNewPartitions[1].begin(), kNewPartitions[1].end(), decoded.partitionGuid.begin()));
    EXPECT_FALSE(adjuster->map({signature, Bytes{0, 0, 0x20, 0, 0, 0, 0, 0}}))
        << "a partition without a mapping cannot change style";
    EXPECT_FALSE(adjuster->map({Bytes{9, 9, 9, 9}, offset})) << "another disk";
}

} // namespace
} // namespace Platform::Windows
