#pragma once
// syslinux (and extlinux, the same core on ext2/3/4): the boot sector that loads the first
// sector of ldlinux.sys, and ldlinux.sys' patch area, which lists where the rest of the file and
// its two ADV sectors lie. Sector numbers are relative to the file system's first sector.

#include "platform/core/area.h"
#include "platform/fs/filesys.h"

#include <cstddef>
#include <cstdint>

namespace Platform {

class Syslinux {
public:
    // A boot sector that syslinux wrote: its OEM name and the core's magic before the signature.
    static bool isBootsector(const std::uint8_t* sector, std::size_t length);
    // A file that holds a syslinux core with a sound patch area and checksum.
    static bool isCoreImg(const Ref<File>& file);
    // Rewrites the core's sector extents, ADV pointers and checksum for a file that lies on
    // areas (in file order), writing back only the file's sectors that changed. false, with the
    // file untouched, when it is no core or the areas do not fit its patch area.
    static bool patchCoreImg(const Area* areas, std::size_t count, const Ref<File>& file);
    // Points the boot sector at the file's first sector.
    static bool patchBootSector(const Area* areas, std::size_t count, std::uint8_t* sector, std::size_t length);
};

} // namespace Platform
