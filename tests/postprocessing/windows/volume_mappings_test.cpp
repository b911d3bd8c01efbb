// The mappings one disk hands to the volume adjuster, collected from the keeper: disk ids of
// either style, partitions told by UUID change or by start and sector size, and the cases where
// nothing changed or the ids cannot be used.

#include "postprocessing/windows/volume_mappings.h"

#include "platform/log/log.h"
#include "postprocessing/keeper_entries.h"

#include <gtest/gtest.h>

namespace Libraries::KRO::PostProcessing {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Platform::Windows::VolumeIdentity;

const Bytes kSignature{0x3e, 0xa0, 0xbe, 0x5c};

Bytes offsetBytes(u64 offset)
{
    Bytes bytes(8);
    for (std::size_t i = 0; i < 8; ++i)
        bytes[i] = std::uint8_t(offset >> (8 * i));
    return bytes;
}

class VolumeMappings : public ::testing::Test {
protected:
    u64 disk(const Bytes& from, const Bytes& to)
    {
        const u64 entry = keeper->addEntry(KindDisk, {}, {}, 0, 0);
        keeper->addObjectEntry(KindDiskIdChange, ByteArray::create(from), ByteArray::create(to), entry, 0);
        return entry;
    }
    void mbrPartition(u64 diskEntry, u64 fromSector, u64 toSector)
    {
        const u64 partition = keeper->addEntry(KindPartition, {}, {}, diskEntry, 0);
        keeper->addEntry(KindPartitionOffset, {Variant::integer(fromSector)}, {Variant::integer(toSector)}, partition,
                         0);
        keeper->addEntry(KindElementSize, {Variant::integer(512)}, {Variant::integer(512)}, partition, 0);
    }

    Ref<Keeper> keeper = Keeper::create();
    Platform::ScopedLogCapture log;
};

TEST_F(VolumeMappings, APartitionMovedFrom63To2048KeepsItsSignatureAndGetsItsNewByteOffset)
{
    const u64 entry = disk(kSignature, kSignature);
    mbrPartition(entry, 63, 2048);
    const auto adjuster = getAdjustVolumes(keeper, entry);
    ASSERT_TRUE(adjuster);
    const auto moved = adjuster->map({kSignature, offsetBytes(32256)});
    ASSERT_TRUE(moved);
    EXPECT_EQ(*moved, (VolumeIdentity{kSignature, offsetBytes(1048576)}));
}

TEST_F(VolumeMappings, NothingChangedGivesNoAdjusterAndTheStepsFindNothing)
{
    const u64 entry = disk(kSignature, kSignature);
    mbrPartition(entry, 2048, 2048);
    EXPECT_FALSE(getAdjustVolumes(keeper, entry));
    EXPECT_TRUE(log.sink().contains("PP Win", Platform::LogDetail,
                                    "Libraries::KRO::PostProcessing::getAdjustVolumes: no mappings found"));
    keeper->setEnabled(StepMountedDevices, true);
    EXPECT_EQ(Windows::adjustMountedDevices(keeper), StepResult::NothingFound);
    EXPECT_EQ(Windows::adjustBcd(keeper), StepResult::NothingFound);
}

TEST_F(VolumeMappings, ANewGptDiskIdAloneIsAChangeAndOddIdsAreRefused)
{
    const Bytes oldGuid(16, 0x11), newGuid(16, 0x22);
    const u64 gpt = disk(oldGuid, newGuid);
    keeper->addEntry(KindPartition, {}, {}, gpt, 0); // no change entry: logged, skipped
    const auto adjuster = getAdjustVolumes(keeper, gpt);
    ASSERT_TRUE(adjuster);
    const Bytes partition(16, 0x33);
    EXPECT_EQ(*adjuster->map({oldGuid, partition}), (VolumeIdentity{newGuid, partition}));

    const u64 odd = disk(Bytes(8, 1), Bytes(8, 2));
    EXPECT_FALSE(getAdjustVolumes(keeper, odd));
    EXPECT_TRUE(log.sink().contains("PP Win", Platform::LogError, "Disk ID size neither GPT nor MBR: 8"));
    const u64 partitionEntry = *entriesOf(*keeper, KindPartition).begin();
    EXPECT_FALSE(getAdjustVolumes(keeper, partitionEntry));
    EXPECT_TRUE(log.sink().contains("PP Win", Platform::LogError,
                                    "Libraries::KRO::PostProcessing::getAdjustVolumes: type not handled: 1"));
}

} // namespace
} // namespace Libraries::KRO::PostProcessing
