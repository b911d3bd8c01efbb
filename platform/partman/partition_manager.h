#pragma once
// Reads a disk's partition table (MBR with logical partitions, or GPT), lets callers change ids,
// types and CHS values, and writes back only the sectors that changed.

#include "platform/core/byte_array.h"
#include "platform/log/log.h"
#include "platform/partman/partition.h"
#include "platform/storage/undo_storage.h"

#include <functional>
#include <span>
#include <sstream>
#include <string>
#include <vector>

namespace Platform {

class PartitionManager : public Object {
public:
    // The table on storage, or null (with a log line on the "Partman" channel) when there is none
    // or it is damaged beyond what a partitioning tool would repair: then Error says Corrupt, with
    // the reason as logged for its text. sectorSize is the caller's expectation; the table is read
    // in the storage's own element size.
    static Ref<PartitionManager> create(Ref<Interfaces::Storage> storage, std::uint32_t sectorSize);

    virtual TableType tableType() const = 0;
    // The MBR signature (4 bytes as on disk) or the GPT disk GUID (16 bytes).
    virtual Ref<ByteArray> diskId() const = 0;
    // false when the size does not fit the table.
    virtual bool setDiskId(std::span<const std::uint8_t> id) = 0;

    std::size_t partitionCount() const { return partitions_.size(); }
    // The index-th partition in table order, or null past the end.
    Ref<Partition> partition(std::size_t index) const
    {
        return index < partitions_.size() ? partitions_[index] : Ref<Partition>();
    }

    // Writes every changed sector, the table's backup copy first, and flushes when asked. Returns
    // 0 on success, else the Error code of the failed write: the sectors already written are
    // then put back, and where even that fails, each copy is the old or the new one, never a
    // torn sector mix within one copy's header.
    virtual std::uint32_t commit(bool flush = true) = 0;

protected:
    explicit PartitionManager(Ref<Interfaces::Storage> storage)
        : storage_(std::move(storage)), undo_(makeRef<UndoStorage>(storage_))
    {
    }

    bool readSectors(std::uint64_t lba, std::uint64_t count, std::vector<std::uint8_t>& out) const;
    // Writes the sectors of `now` that differ from `before` (both count whole sectors from lba).
    std::uint32_t writeChanged(std::uint64_t lba, const std::vector<std::uint8_t>& before,
                               const std::vector<std::uint8_t>& now) const;
    // Runs a commit's writes (0 or the code of the failed one) as one change: when one fails,
    // what the others wrote is put back, and the log says so. Returns the writes' code.
    std::uint32_t writeAsOne(const std::function<std::uint32_t()>& writes) const;

    static LogChannel channel();

    // A reason the table is refused: logged at level 4 when it goes out of scope, and kept as
    // Error's text with the code Corrupt.
    class Refusal {
    public:
        Refusal() = default;
        ~Refusal();
        Refusal(const Refusal&) = delete;
        Refusal& operator=(const Refusal&) = delete;
        template <typename T>
        Refusal& operator<<(const T& value)
        {
            text_ << value;
            return *this;
        }

    private:
        std::ostringstream text_;
    };

    Ref<Interfaces::Storage> storage_;
    Ref<UndoStorage> undo_; // the commits write through it
    std::vector<Ref<Partition>> partitions_;
    mutable bool wroteSectors_ = false; // some commit changed a sector: the kernel must re-read
};

} // namespace Platform
