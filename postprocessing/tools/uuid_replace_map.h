#pragma once
// Old-to-new id texts for rewriting text files that name file systems and partitions by id, in
// every spelling Linux and Windows-side tools use.

#include "platform/log/log.h"
#include "postprocessing/keeper.h"

#include <map>
#include <string>

namespace Libraries::KRO::PostProcessing {

// Lower-case old id text to new id text, ordered by the old text.
using UuidReplaceMap = std::map<std::string, std::string>;

namespace Tools {

enum class HexCase { None = 0, Upper = 1, Lower = 2, Mixed = 3 };

// Adds the id change of a kind-13 or kind-9 entry: big-endian text, for 16-byte ids the Windows
// text too, and for 8-byte (NTFS) serials Linux's 16 hex digits without the dash. Nothing found (no usable ids), Ok, or
// FAILED when an old text is taken.
StepResult addUuidMapId(const Ref<Keeper>& keeper, u64 index, UuidReplaceMap& map);

// Rewrites pairs of MBR-derived partition ids into the Linux form "1a2b3c4d-01"; from the tenth
// partition on both the decimal form ("-010", "-11") and the kernel's hex form ("-0a", "-0b").
void mapLinuxMbrPartitionIds(UuidReplaceMap& map);

// An MBR partition id as the kernel and blkid print it: signature, "-", partition number in
// two or more hex digits ("1a2b3c4d-0c" for zero-based entry 11).
std::string linuxMbrPartitionId(u32 signature, u32 entry);

// The entry with its id (after prefix, or after its last "=" when prefix is empty; the prefix
// found is handed back) replaced from the map, in the letter case the entry uses. Unchanged when
// the id is not in the map.
std::string replaceVolumeId(const std::string& entry, const UuidReplaceMap& map, std::string& prefix);

HexCase classifyHexCase(const std::string& text);

// The two maps every text rewriter starts from: file-system ids (kind 13) and partition ids
// (kind 9, MBR partitions in their Linux form too). false when an entry fails, after its log line.
struct IdMaps {
    UuidReplaceMap fsIds;
    UuidReplaceMap partitionIds;
    bool empty() const { return fsIds.empty() && partitionIds.empty(); }
};
bool buildIdMaps(const Ref<Keeper>& keeper, IdMaps& maps, const char* fsFailureText, const char* partitionFailureText,
                 Platform::LogChannel channel);

// What a text step says when its maps cannot be built or are empty.
struct IdMapTexts {
    const char* fsFailure;
    const char* partitionFailure;
    // Said at its level when neither map has an entry; null for a step with more maps to look at.
    const char* noMapping = nullptr;
    Platform::LogLevel noMappingLevel = Platform::LogDetail;
};
// A text step's start: the keeper checked and both maps built. The step's result when it stops
// here: Failed without a keeper or with a bad entry, NothingFound with no mapping at all.
std::optional<StepResult> startIdStep(const Ref<Keeper>& keeper, IdMaps& maps, const IdMapTexts& texts,
                                      Platform::LogChannel channel);

} // namespace Tools
} // namespace Libraries::KRO::PostProcessing
