#pragma once
// What the Windows boot steps need from the keeper, found on the disks themselves unless the
// options say otherwise: which partition is the EFI system partition, which template a new boot
// configuration store is made from, and the disk ids when no step records them.

#include "cli/options.h"
#include "platform/storage/storage.h"
#include "postprocessing/keeper.h"

namespace Cli {

namespace PP = Libraries::KRO::PostProcessing;

// Whether partition (as Linux numbers it) of target targetIndex is the EFI system partition:
// as --efi-partition names it, else by its type.
bool isEfiPartition(const Options& options, std::size_t targetIndex, unsigned partition, bool efiType);

// Disk ids as they are (kind 5), for the steps that map volumes when the disk-id step, which
// records them otherwise, is off.
void recordKeptDiskId(PP::Keeper& keeper, PP::u64 disk, const Platform::Ref<Interfaces::Storage>& target,
                      const Platform::Ref<Interfaces::Storage>& source);

// The template store of the newest Windows on the targets (or --bcd-template's) and the store
// path on the EFI partition (kinds 17 and 12); nothing when there is none.
void recordBcdTemplate(const Platform::Ref<PP::Keeper>& keeper, const Options& options);

} // namespace Cli
