#pragma once
// Byte-addressed access to a storage: reads and read-modify-writes of the sectors that cover a
// byte range. File-system structures have their own sector sizes; these bridge the two.

#include "platform/storage/storage.h"

#include <cstdint>
#include <span>
#include <vector>

namespace Platform {

// false when the range does not lie inside the storage or a read fails.
bool readBytes(Interfaces::Storage& storage, std::uint64_t offset, std::span<std::uint8_t> out);
// Writes only the covering sectors; false when out of range or a transfer fails.
bool writeBytes(Interfaces::Storage& storage, std::uint64_t offset, std::span<const std::uint8_t> data);

// Whether count units of unitBytes each fit inside the storage. Never wraps: a count taken from
// a damaged structure may be anything.
bool fitsInStorage(const Interfaces::Storage& storage, std::uint64_t count, std::uint64_t unitBytes);

// A convenience for whole structures: the bytes, or an empty vector on failure.
std::vector<std::uint8_t> readBytes(Interfaces::Storage& storage, std::uint64_t offset, std::size_t length);

} // namespace Platform
