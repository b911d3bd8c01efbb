#include "postprocessing/keeper.h"

#include <gtest/gtest.h>

#include <set>

namespace Libraries::KRO::PostProcessing {
namespace {

class GrantedFeatures : public Object, public virtual Configurations::Apps::Adjust {
public:
    explicit GrantedFeatures(std::set<u32> granted) : granted_(std::move(granted)) {}
    bool isGranted(u32 feature) const override { return granted_.count(feature) != 0; }

private:
    std::set<u32> granted_;
};

Ref<Keeper> keeperWithAll(bool on)
{
    auto keeper = Keeper::create();
    for (s32 slot = 0; slot < kStepCount; ++slot)
        keeper->setEnabled(slot, on);
    return keeper;
}

std::set<s32> enabledSlots(const Keeper& keeper)
{
    std::set<s32> slots;
    for (s32 slot = 0; slot < kStepCount; ++slot)
        if (keeper.isEnabled(slot))
            slots.insert(slot);
    return slots;
}

TEST(Presets, FixedTablesSwitchTheirColumnAndLeaveSevenElevenSixteen)
{
    // Preset 1 from all-off: everything it lists as 1.
    auto keeper = keeperWithAll(false);
    Keeper::setPreset(keeper, nullptr, Keeper::PresetFull);
    EXPECT_EQ(enabledSlots(*keeper),
              (std::set<s32>{0, 1, 2, 3, 4, 5, 6, 8, 10, 12, 13, 14, 17, 18, 19, 22, 23, 24, 25, 26, 27, 28, 29}));

    keeper = keeperWithAll(false);
    Keeper::setPreset(keeper, nullptr, Keeper::PresetKeepIds);
    EXPECT_EQ(enabledSlots(*keeper), (std::set<s32>{3, 4, 5, 6, 8, 10, 12, 13, 14, 17, 18, 24, 25, 26, 27, 28, 29}));

    // Preset 3 from all-on: its column, with the untouched slots still on.
    keeper = keeperWithAll(true);
    Keeper::setPreset(keeper, nullptr, Keeper::PresetMinimal);
    EXPECT_EQ(enabledSlots(*keeper), (std::set<s32>{7, 8, 10, 11, 12, 16, 17, 18, 19, 26, 28, 29}));
}

TEST(Presets, ConfigurationPresetOnlySwitchesOff)
{
    auto keeper = keeperWithAll(false);
    Keeper::setPreset(keeper, makeRef<GrantedFeatures>(std::set<u32>{0, 1, 2, 3, 4, 5, 6}),
                      Keeper::PresetConfiguration);
    EXPECT_TRUE(enabledSlots(*keeper).empty());

    // Nothing granted: every governed slot goes off; 28 (Raspberry Pi) and the others stay.
    keeper = keeperWithAll(true);
    Keeper::setPreset(keeper, makeRef<GrantedFeatures>(std::set<u32>{}), Keeper::Preset(42));
    std::set<s32> expected;
    for (s32 slot = 0; slot < kStepCount; ++slot)
        expected.insert(slot);
    for (s32 off : {17, 18, 19, 22, 23, 20, 21, 24, 25, 26, 27, 29})
        expected.erase(off);
    EXPECT_EQ(enabledSlots(*keeper), expected);
}

TEST(Presets, GrubAlternativeSwitchNeedsFeatureTwoOrThree)
{
    auto keeper = keeperWithAll(true);
    Keeper::setPreset(keeper, makeRef<GrantedFeatures>(std::set<u32>{0, 1, 3, 4, 6}), Keeper::PresetConfiguration);
    EXPECT_TRUE(keeper->isEnabled(StepGrubSectorsAlt));
    EXPECT_FALSE(keeper->isEnabled(StepGrubSectors));
    EXPECT_FALSE(keeper->isEnabled(StepGrubConfig));
    EXPECT_TRUE(keeper->isEnabled(StepSyslinux));
}

TEST(Presets, NullConfigurationGrantsEverything)
{
    auto keeper = keeperWithAll(true);
    Keeper::setPreset(keeper, nullptr, Keeper::PresetConfiguration);
    EXPECT_EQ(enabledSlots(*keeper).size(), std::size_t(kStepCount));
}

} // namespace
} // namespace Libraries::KRO::PostProcessing
