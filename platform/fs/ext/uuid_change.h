#pragma once

#include "platform/storage/storage.h"

#include <span>
#include <string>

namespace Platform {

// Gives the ext file system on storage the UUID id (16 bytes). Refuses a file system that needs
// journal recovery, has errors recorded or was not cleanly unmounted, and one whose metadata does
// not verify against its checksums under the old UUID (checked wherever the change rewrites a
// checksum). Nothing is written then. false with Error's code and text set.
bool changeExtUuid(const Ref<Interfaces::Storage>& storage, std::span<const std::uint8_t> id);

} // namespace Platform
