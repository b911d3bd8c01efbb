#pragma once
// Target file systems, temporary files and file copies for the steps that rewrite files.

#include "platform/fs/filesys.h"
#include "postprocessing/keeper.h"

#include <functional>
#include <optional>
#include <vector>

namespace Libraries::KRO::PostProcessing {

// A new temporary file "ppfstab_" plus 8 hex digits in the host temp folder, open for reading
// and writing; null with two log lines on failure.
Ref<Platform::File> createTempFile();

namespace Tools {

// Whether the host temp folder (TMPDIR) takes a temporary file; problem names the folder and the
// cause when it does not.
bool temporaryFolderUsable(std::string& problem);

struct TargetFileSystem {
    Ref<Platform::Filesys> fs;        // null when there is no usable file system
    Ref<Interfaces::Storage> storage; // null for a host folder or file named by path
};
// The target file system of a partition entry (kind 1, or its kind-8 storage entry): a node path
// named by the entry first, else the partition's target storage. flags: those of
// Platform::Filesys::create.
TargetFileSystem openTargetFileSystem(const Ref<Keeper>& keeper, u64 index, u32 flags, Platform::Access access);
// The same, writable. mode is accepted as callers pass it (always 1).
Ref<Platform::Filesys> getToFSItemFactory(Ref<Keeper> keeper, u64 index, u32 mode);

// fn folded (foldResult) over the target file system of every partition entry that has one.
StepResult foldTargetFileSystems(const Ref<Keeper>& keeper, const std::function<StepResult(Platform::Filesys&)>& fn);

// Where a file lies (partition-relative sectors, in file order), fetched from its allocation
// iterator eight areas at a time; nothing (Error set) when its file system cannot say.
std::optional<std::vector<Platform::Area>> collectAllocation(Platform::File& file);

// Copies the whole of source over target (resized to fit) in 1 MiB blocks.
bool copyFile(Ref<Platform::File> source, Ref<Platform::File> target);

} // namespace Tools
} // namespace Libraries::KRO::PostProcessing
