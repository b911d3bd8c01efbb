#include "postprocessing/step_labels.h"

namespace Libraries::KRO::PostProcessing {

const char* stepLabel(s32 slot) noexcept
{
    static constexpr const char* kLabels[kStepCount] = {
        "Change or get disk ids",
        "Change or get disk ids",
        "New fs ids",
        "MBR CHS",
        "Partition CHS",
        "Adjust FS Offset",
        "Adjust partition type",
        "Transfer or adjust partition type",
        "Apply LBA patch",
        "Remove Dell MediaDirect",
        "Adjust BCD",
        "Create BCD",
        "Adjust mounted devices",
        "Purge win hiberfile",
        "set win clean shutdown",
        "clear WSUS id",
        "- Set computer name",
        "- Activate IDE",
        "- Activate AHCI",
        "- Activate NVMe",
        "- Activate USB",
        "- Activate USB3",
        "- Activate Atapi",
        "- Activate RAIDs",
        "Adjusting grub sector lists",
        "Adjusting grub sector lists",
        "Adjusting grub config",
        "Adjusting syslinux sector list",
        "Adjusting Raspberry Pi config",
        "Adjusting linux fstab",
        "Migrate GPT",
    };
    return slot >= 0 && slot < kStepCount ? kLabels[slot] : "";
}

} // namespace Libraries::KRO::PostProcessing
