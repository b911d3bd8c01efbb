#pragma once
// The GUID partition table: protective MBR, primary header and entry array at the start of the
// disk, backup entry array and header at its end, each guarded by CRC32. A damaged copy is
// rebuilt from the good one on commit, and a backup that no longer sits on the last sector (the
// table was copied to a larger disk) moves there, so the new space becomes usable.

#include "platform/partman/partition_manager.h"

#include <optional>

namespace Platform {

class GuidPartitionTable : public PartitionManager {
public:
    static Ref<PartitionManager> open(Ref<Interfaces::Storage> storage, std::vector<std::uint8_t> protectiveMbr);

    TableType tableType() const override { return TableType::Gpt; }
    Ref<ByteArray> diskId() const override { return ByteArray::create(diskGuid_); }
    bool setDiskId(std::span<const std::uint8_t> id) override;
    std::uint32_t commit(bool flush) override;

    explicit GuidPartitionTable(Ref<Interfaces::Storage> storage) : PartitionManager(std::move(storage)) {}

private:
    // One copy of the table as read from the disk.
    struct Copy {
        std::uint64_t headerLba = 0;
        std::uint64_t entriesLba = 0;
        std::vector<std::uint8_t> header; // one sector
        std::vector<std::uint8_t> entries;
    };

    bool load(std::vector<std::uint8_t> protectiveMbr);
    std::optional<Copy> readCopy(std::uint64_t headerLba, const char* which) const;
    const char* layoutProblem(std::span<const std::uint8_t> header, std::uint64_t headerLba) const;
    bool loadPartitions();
    std::uint64_t entriesSectors() const;
    std::vector<std::uint8_t> buildEntries() const;
    std::vector<std::uint8_t> buildHeader(std::uint64_t myLba, std::uint64_t alternateLba, std::uint64_t entriesLba,
                                          std::uint64_t lastUsable, std::uint32_t entriesCrc) const;
    std::vector<std::uint8_t> buildProtectiveMbr(std::uint64_t lastLba) const;

    std::vector<std::uint8_t> protectiveMbr_;
    std::optional<Copy> primary_;
    std::optional<Copy> backup_;
    Guid diskGuid_{};
    std::vector<std::uint8_t> headerTemplate_; // the good copy's header sector
    std::vector<std::uint8_t> entries_;        // the good copy's entry array
    std::uint32_t entryCount_ = 0;
    std::uint32_t entrySize_ = 0;
    std::uint64_t lastUsable_ = 0;
    std::vector<std::size_t> slots_; // entry slot of each partition
};

} // namespace Platform
