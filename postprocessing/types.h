#pragma once
// Names shared by the whole library: the platform types it uses, the step slots, the mapping
// kinds and the step results.

#include "platform/core/byte_array.h"
#include "platform/core/ref.h"
#include "platform/core/string.h"
#include "platform/core/variant.h"

#include <cstdint>

namespace Libraries::KRO::PostProcessing {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using s32 = std::int32_t;

using Platform::ByteArray;
using Platform::makeRef;
using Platform::NamedVariant;
using Platform::Object;
using Platform::Ref;
using Platform::RefCount;
using Platform::String;
using Platform::Variant;
using Platform::VariantList;

// Any object the keeper can hold; readers down-cast with Platform::refCast.
using ObjectRef = Ref<RefCount>;

inline constexpr u64 kNoPartition = ~u64(0);

enum class StepResult : u32 {
    NotAccessed = 0,
    NotActivated = 1,
    NothingFound = 2,
    Ok = 3,
    Failed = 4,
};

// Folds one object's outcome into a step's result: "FAILED" is never lowered, and "Ok" only
// replaces "Nothing found".
constexpr StepResult foldResult(StepResult current, StepResult outcome) noexcept
{
    if (current == StepResult::Failed || outcome == StepResult::Failed)
        return StepResult::Failed;
    if (current == StepResult::NothingFound && outcome == StepResult::Ok)
        return StepResult::Ok;
    return current;
}

// The 31 step slots of the keeper.
enum Step : s32 {
    StepDiskIds = 0,
    StepPartitionIds = 1,
    StepFsIds = 2,
    StepMbrChs = 3,
    StepPartitionChs = 4,
    StepFsOffset = 5,
    StepPartitionType = 6,
    StepTransferPartitionType = 7,
    StepLbaPatch = 8,
    StepMediaDirect = 9,
    StepAdjustBcd = 10,
    StepCreateBcd = 11,
    StepMountedDevices = 12,
    StepHiberfile = 13,
    StepCleanShutdown = 14,
    StepWsusId = 15,
    StepComputerName = 16,
    StepIde = 17,
    StepAhci = 18,
    StepNvme = 19,
    StepUsb = 20,
    StepUsb3 = 21,
    StepAtapi = 22,
    StepRaid = 23,
    StepGrubSectorsAlt = 24,
    StepGrubSectors = 25,
    StepGrubConfig = 26,
    StepSyslinux = 27,
    StepRaspberryPi = 28,
    StepFstab = 29,
    StepGptMigration = 30,
};

inline constexpr s32 kStepCount = 31;

// What a mapping entry maps (the entry's kind).
enum EntryKind : u64 {
    KindDisk = 0,
    KindPartition = 1,
    KindPartitionOffset = 2,
    KindElementSize = 3,
    KindDiskStorage = 4,
    KindDiskIdChange = 5,
    KindDiskGeometry = 6,
    KindAreaTranslator = 7,
    KindPartitionStorage = 8,
    KindPartitionUuidChange = 9,
    KindEfiMarker = 11,
    KindBcdTemplateFs = 12,
    KindVolumeIdChange = 13,
    KindComputerName = 14,
    KindLinuxIdString = 15,
    KindStorageMapping = 16,
    KindBcdPath = 17,
    KindNone = ~u64(0),
};

} // namespace Libraries::KRO::PostProcessing
