#include "postprocessing/keeper.h"

#include <utility>

namespace Libraries::KRO::PostProcessing {

namespace {

// One row of the fixed tables: a slot and its switch under presets 1, 2 and 3 (-1: untouched).
struct PresetRow {
    s32 slot;
    signed char setting[3];
};

// Rows in the order the switches are set. Slots 7, 11 and 16 are left to the caller on purpose.
constexpr PresetRow kPresetTable[] = {
    {StepDiskIds, {1, 0, 0}},
    {StepPartitionIds, {1, 0, 0}},
    {StepFsIds, {1, 0, 0}},
    {StepMbrChs, {1, 1, 0}},
    {StepPartitionChs, {1, 1, 0}},
    {StepFsOffset, {1, 1, 0}},
    {StepPartitionType, {1, 1, 0}},
    {StepLbaPatch, {1, 1, 1}},
    {StepMediaDirect, {0, 0, 0}},
    {StepAdjustBcd, {1, 1, 1}},
    {StepMountedDevices, {1, 1, 1}},
    {StepHiberfile, {1, 1, 0}},
    {StepCleanShutdown, {1, 1, 0}},
    {StepWsusId, {0, 0, 0}},
    {StepIde, {1, 1, 1}},
    {StepAhci, {1, 1, 1}},
    {StepNvme, {1, 0, 1}},
    {StepAtapi, {1, 0, 0}},
    {StepRaid, {1, 0, 0}},
    {StepUsb, {0, 0, 0}},
    {StepUsb3, {0, 0, 0}},
    {StepGrubSectorsAlt, {1, 1, 0}},
    {StepGrubSectors, {1, 1, 0}},
    {StepSyslinux, {1, 1, 0}},
    {StepGrubConfig, {1, 1, 1}},
    {StepRaspberryPi, {1, 1, 1}},
    {StepFstab, {1, 1, 1}},
    {StepGptMigration, {0, 0, 0}},
};

void applyFixedPreset(Keeper& keeper, int column)
{
    for (const auto& row : kPresetTable)
        if (row.setting[column] >= 0)
            keeper.setEnabled(row.slot, row.setting[column] == 1);
}

void switchOff(Keeper& keeper, std::initializer_list<s32> slots)
{
    for (s32 slot : slots)
        keeper.setEnabled(slot, false);
}

// Switches nothing on; switches off what the configuration does not grant. A null configuration
// grants every feature.
void applyConfigurationPreset(Keeper& keeper, const Configurations::Apps::Adjust* adjust)
{
    const auto granted = [adjust](u32 feature) { return adjust == nullptr || adjust->isGranted(feature); };
    if (!granted(0))
        switchOff(keeper, {StepIde, StepAhci, StepNvme, StepAtapi, StepRaid});
    if (!granted(1))
        switchOff(keeper, {StepUsb, StepUsb3});
    if (!granted(2) && !granted(3))
        switchOff(keeper, {StepGrubSectorsAlt});
    if (!granted(2))
        switchOff(keeper, {StepGrubSectors, StepGrubConfig});
    if (!granted(4))
        switchOff(keeper, {StepSyslinux});
    if (!granted(6))
        switchOff(keeper, {StepFstab});
}

} // namespace

void Keeper::setPreset(Ref<Keeper> keeper, Ref<Configurations::Apps::Adjust> adjust, Preset preset)
{
    if (!keeper)
        return;
    switch (preset) {
    case PresetFull:
    case PresetKeepIds:
    case PresetMinimal:
        applyFixedPreset(*keeper, int(preset) - 1);
        break;
    default:
        applyConfigurationPreset(*keeper, adjust.get());
        break;
    }
}

} // namespace Libraries::KRO::PostProcessing
