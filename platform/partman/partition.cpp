#include "platform/partman/partition.h"

namespace Platform {

namespace {
constexpr std::uint8_t kDerivedMarker[2] = {0x04, 'M'};
constexpr std::uint8_t kTypeMarker[2] = {0x04, 'T'};
} // namespace

bool Partition::setUUID(const Guid& uuid)
{
    if (table_ == TableType::Mbr && uuid != getUUIDFromDiskIDAndEntry(diskSignature_, entryIndex_))
        return false;
    if (uuid != uuid_)
        modified_ = true;
    uuid_ = uuid;
    return true;
}

bool Partition::setTypeUUID(const Guid& typeUuid)
{
    std::uint8_t type = 0;
    if (table_ == TableType::Mbr && !mbrTypeFromUUID(typeUuid, type))
        return false;
    if (typeUuid != typeUuid_)
        modified_ = true;
    typeUuid_ = typeUuid;
    return true;
}

bool Partition::setStartCHS(std::uint32_t packed)
{
    if (table_ != TableType::Mbr)
        return false;
    modified_ |= packed != startChs_;
    startChs_ = packed;
    return true;
}

bool Partition::setEndCHS(std::uint32_t packed)
{
    if (table_ != TableType::Mbr)
        return false;
    modified_ |= packed != endChs_;
    endChs_ = packed;
    return true;
}

bool Partition::getDiskIDAndEntryFromUUID(const Guid& uuid, std::uint32_t& diskId, std::uint32_t& entry)
{
    if (uuid[8] != kDerivedMarker[0] || uuid[9] != kDerivedMarker[1])
        return false;
    diskId = std::uint32_t(uuid[10]) | std::uint32_t(uuid[11]) << 8 | std::uint32_t(uuid[12]) << 16 |
             std::uint32_t(uuid[13]) << 24;
    entry = std::uint32_t(uuid[14]) | std::uint32_t(uuid[15]) << 8;
    return true;
}

Guid Partition::getUUIDFromDiskIDAndEntry(std::uint32_t diskId, std::uint32_t entry)
{
    Guid uuid{};
    uuid[8] = kDerivedMarker[0];
    uuid[9] = kDerivedMarker[1];
    for (int i = 0; i < 4; ++i)
        uuid[std::size_t(10 + i)] = std::uint8_t(diskId >> (8 * i));
    uuid[14] = std::uint8_t(entry);
    uuid[15] = std::uint8_t(entry >> 8);
    return uuid;
}

Guid Partition::mbrTypeUUID(std::uint8_t type)
{
    Guid uuid{};
    uuid[0] = type;
    uuid[8] = kTypeMarker[0];
    uuid[9] = kTypeMarker[1];
    return uuid;
}

bool Partition::mbrTypeFromUUID(const Guid& typeUuid, std::uint8_t& type)
{
    if (typeUuid != mbrTypeUUID(typeUuid[0]))
        return false;
    type = typeUuid[0];
    return true;
}

} // namespace Platform
