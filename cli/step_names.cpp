#include "cli/step_names.h"

#include "postprocessing/types.h"

namespace Cli {

namespace {

constexpr std::string_view kNames[Libraries::KRO::PostProcessing::kStepCount] = {
    "disk-ids",
    "part-ids",
    "fs-ids",
    "mbr-chs",
    "part-chs",
    "fs-offset",
    "part-type",
    "transfer-part-type",
    "lba-patch",
    "media-direct",
    "bcd-adjust",
    "bcd-create",
    "mounted-devices",
    "hiberfile",
    "clean-shutdown",
    "wsus-id",
    "computer-name",
    "ide",
    "ahci",
    "nvme",
    "usb",
    "usb3",
    "atapi",
    "raid",
    "grub-sectors-alt",
    "grub-sectors",
    "grub-config",
    "syslinux",
    "raspberry-pi",
    "fstab",
    "gpt-migration",
};

} // namespace

std::string_view stepName(int slot) noexcept
{
    return slot >= 0 && slot < Libraries::KRO::PostProcessing::kStepCount ? kNames[slot] : std::string_view{};
}

std::optional<int> stepSlot(std::string_view name) noexcept
{
    for (int slot = 0; slot < Libraries::KRO::PostProcessing::kStepCount; ++slot)
        if (kNames[slot] == name)
            return slot;
    return std::nullopt;
}

} // namespace Cli
