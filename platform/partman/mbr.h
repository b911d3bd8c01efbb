#pragma once
// The MBR partition table: four primary entries in sector 0 and logical partitions in a chain of
// extended boot records. Logical partitions take entry indices 4, 5, ... (Linux numbering - 1).

#include "platform/partman/partition_manager.h"

#include <map>

namespace Platform {

class MbrPartitionTable : public PartitionManager {
public:
    // True when sector 0 carries a boot signature and a GPT protective entry (type 0xEE).
    static bool isProtective(std::span<const std::uint8_t> sector0);
    static Ref<PartitionManager> open(Ref<Interfaces::Storage> storage, std::vector<std::uint8_t> sector0);

    TableType tableType() const override { return TableType::Mbr; }
    Ref<ByteArray> diskId() const override;
    bool setDiskId(std::span<const std::uint8_t> id) override;
    std::uint32_t commit(bool flush) override;

    std::uint32_t diskSignature() const { return signature_; }

    explicit MbrPartitionTable(Ref<Interfaces::Storage> storage) : PartitionManager(std::move(storage)) {}

private:
    // Where a partition's entry lives: the sector (0 or an EBR) and the entry's byte offset.
    struct EntryPlace {
        std::uint64_t sectorLba;
        std::size_t offset;
    };

    bool load(std::vector<std::uint8_t> sector0);
    bool addEntry(std::uint32_t index, std::uint64_t sectorLba, std::size_t offset, std::uint64_t base);
    bool walkLogicals(std::uint64_t extendedStart, std::uint64_t extendedSize);
    bool layoutFits() const;
    void patchEntry(std::vector<std::uint8_t>& sector, std::size_t offset, const Partition& partition) const;

    std::uint32_t signature_ = 0;
    std::uint64_t extendedStart_ = 0; // the extended partition, when there is one
    std::uint64_t extendedSize_ = 0;
    std::map<std::uint64_t, std::vector<std::uint8_t>> sectors_; // as read: sector 0 and every EBR
    std::vector<EntryPlace> places_;                             // parallel to partitions_
};

} // namespace Platform
