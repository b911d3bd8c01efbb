#pragma once
// The sanity rules e2fsck applies to an ext superblock before it trusts one. libext2fs opens
// superblocks that break them and then overruns its own buffers (a first data block past the
// first group, for one), so every superblock is held to them before libext2fs sees it. A primary
// that fails is never repaired from, nor copied over, the backups: the file system is refused and
// e2fsck, which knows how to use the backups, is the way out.

#include <cstdint>
#include <span>
#include <string>

namespace Platform {

// What is wrong with the superblock (1024 bytes) of a file system on storageBytes, or empty.
std::string extSuperblockProblem(std::span<const std::uint8_t> superblock, std::uint64_t storageBytes);

} // namespace Platform
