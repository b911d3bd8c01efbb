#pragma once
// The EFI system partition of a disk that Windows is to boot from in UEFI mode, filled as
// Windows' own boot-file tool fills it: the boot manager and its files from the newest Windows
// on the disk, the fallback loader EFI/Boot/bootx64.efi, and a new boot configuration store made
// from that Windows' BCD-Template with one entry per Windows on the disk.

#include "platform/partman/partition_manager.h"
#include "platform/storage/storage.h"

#include <string>

namespace Platform::Migrate::Utils {

// The disk copied from is named by its path (an image file or a block device) or opened by the
// caller; it is not read: the target's partitions hold what was copied, and they are what the
// store must name. False (logged) when the target has no EFI system partition or no Windows, or
// a file could not be written.
bool populateEFIPartition(const std::string& sourcePath, const Ref<Interfaces::Storage>& target,
                          const Ref<PartitionManager>& targetTable);
bool populateEFIPartition(const Ref<Interfaces::Storage>& source, const Ref<PartitionManager>& sourceTable,
                          const Ref<Interfaces::Storage>& target, const Ref<PartitionManager>& targetTable);

} // namespace Platform::Migrate::Utils
