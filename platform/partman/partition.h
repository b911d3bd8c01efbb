#pragma once
// One partition of an MBR or GPT table, as the partition manager hands it out. Changes made here
// reach the disk with the manager's commit.

#include "platform/core/fs_type.h"
#include "platform/core/guid.h"
#include "platform/core/ref.h"

#include <cstdint>

namespace Platform {

enum class TableType : std::uint32_t { None = 0, Mbr = 6, Gpt = 7 };

class Partition : public Object {
public:
    // A packed CHS value that no CHS triple can express; written as the maximal triple.
    static constexpr std::uint32_t kChsNotRepresentable = 0xFF000000;

    Partition(TableType table, std::uint32_t entryIndex, std::uint64_t start, std::uint64_t size, const Guid& uuid,
              const Guid& typeUuid, std::uint32_t startChs, std::uint32_t endChs)
        : table_(table), entryIndex_(entryIndex), start_(start), size_(size), uuid_(uuid), typeUuid_(typeUuid),
          startChs_(startChs), endChs_(endChs)
    {
    }

    TableType table() const { return table_; }
    // MBR: the Linux partition number - 1 (logical partitions from 4); GPT: the entry's slot.
    std::uint32_t entryIndex() const { return entryIndex_; }
    std::uint64_t start() const { return start_; }
    std::uint64_t size() const { return size_; }
    // GPT: the unique partition GUID. MBR: the id derived from disk signature and entry index.
    const Guid& uuid() const { return uuid_; }
    const Guid& typeUuid() const { return typeUuid_; }
    // Packed CHS: head in bits 16-23, sector | cylinder bits 8-9 in bits 8-15, cylinder low in 0-7.
    std::uint32_t startCHS() const { return startChs_; }
    std::uint32_t endCHS() const { return endChs_; }

    // GPT: any GUID. MBR: only the derived form of the table's disk signature and this entry.
    bool setUUID(const Guid& uuid);
    // GPT: any GUID. MBR: only an MBR type form (see mbrTypeUUID).
    bool setTypeUUID(const Guid& typeUuid);
    // MBR only; false (and nothing changed) on a GPT partition.
    bool setStartCHS(std::uint32_t packed);
    bool setEndCHS(std::uint32_t packed);

    bool modified() const { return modified_; }
    void markCommitted() { modified_ = false; }

    // MBR-derived partition ids: byte 8 is 0x04 and byte 9 'M' (an NCS-variant form that no
    // random version-4 UUID takes); bytes 10-13 hold the signature and 14-15 the entry index,
    // little-endian. Bytes 0-7 are zero. Text forms that reorder bytes 0-7 leave this intact.
    static bool getDiskIDAndEntryFromUUID(const Guid& uuid, std::uint32_t& diskId, std::uint32_t& entry);
    static Guid getUUIDFromDiskIDAndEntry(std::uint32_t diskId, std::uint32_t entry);

    // MBR type bytes as type UUIDs: byte 0 the type, bytes 8-9 04 'T', the rest zero.
    static Guid mbrTypeUUID(std::uint8_t type);
    static bool mbrTypeFromUUID(const Guid& typeUuid, std::uint8_t& type);

    // Whether a partition of this type may hold a file system of this type code (EFI and recovery
    // types count for their file systems); the type a new partition for it should get.
    static bool validTypeUUID(std::uint32_t fsType, const Guid& typeUuid);
    static Guid defaultTypeUUID(std::uint32_t fsType, TableType table);
    // The EFI system partition's type: its GPT GUID, or the MBR type 0xEF.
    static bool isEfiSystemType(const Guid& typeUuid);

private:
    friend class MbrPartitionTable;

    TableType table_;
    std::uint32_t entryIndex_;
    std::uint64_t start_;
    std::uint64_t size_;
    Guid uuid_;
    Guid typeUuid_;
    std::uint32_t startChs_;
    std::uint32_t endChs_;
    std::uint32_t diskSignature_ = 0; // MBR only
    bool modified_ = false;
};

} // namespace Platform
