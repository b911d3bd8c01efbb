#include "platform/partman/mbr.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/partman/layout.h"

#include <algorithm>
#include <set>

namespace Platform {

namespace L = Partman::Layout;

namespace {

constexpr std::size_t kMaxLogicals = 256;

bool hasBootSignature(std::span<const std::uint8_t> sector)
{
    ByteView view(sector);
    return view.u8(L::Mbr::kBootSignature) == 0x55 && view.u8(L::Mbr::kBootSignature + 1) == 0xAA && view.ok();
}

bool isExtended(std::uint8_t type)
{
    return type == 0x05 || type == 0x0F || type == 0x85;
}

std::size_t entryOffset(std::size_t slot)
{
    return L::Mbr::kEntries + slot * L::Mbr::kEntrySize;
}

std::uint32_t readChs(ByteView& view, std::size_t at)
{
    return std::uint32_t(view.u8(at)) << 16 | std::uint32_t(view.u8(at + 1)) << 8 | view.u8(at + 2);
}

void writeChs(ByteWriter& out, std::size_t at, std::uint32_t packed)
{
    if (packed == Partition::kChsNotRepresentable) {
        // The maximal triple (cylinder 1023, head 254, sector 63), as partitioning tools write it.
        out.u8(at, 0xFE);
        out.u8(at + 1, 0xFF);
        out.u8(at + 2, 0xFF);
        return;
    }
    out.u8(at, std::uint8_t(packed >> 16));
    out.u8(at + 1, std::uint8_t(packed >> 8));
    out.u8(at + 2, std::uint8_t(packed));
}

} // namespace

bool MbrPartitionTable::isProtective(std::span<const std::uint8_t> sector0)
{
    if (!hasBootSignature(sector0))
        return false;
    ByteView view(sector0);
    for (std::size_t slot = 0; slot < L::Mbr::kEntryCount; ++slot)
        if (view.u8(entryOffset(slot) + L::MbrEntry::kType) == L::Mbr::kTypeProtective)
            return true;
    return false;
}

Ref<PartitionManager> MbrPartitionTable::open(Ref<Interfaces::Storage> storage, std::vector<std::uint8_t> sector0)
{
    if (!hasBootSignature(sector0)) {
        LogMessage(channel(), LogNotice) << "No partition table: sector 0 has no boot signature";
        return {};
    }
    auto table = makeRef<MbrPartitionTable>(std::move(storage));
    if (!table || !table->load(std::move(sector0)))
        return {};
    return table;
}

bool MbrPartitionTable::load(std::vector<std::uint8_t> sector0)
{
    signature_ = ByteView(sector0).u32(L::Mbr::kDiskSignature);
    sectors_[0] = sector0;
    ByteView view(sector0);
    for (std::uint32_t slot = 0; slot < L::Mbr::kEntryCount; ++slot) {
        const std::size_t at = entryOffset(slot);
        const std::uint8_t type = view.u8(at + L::MbrEntry::kType);
        if (type == L::Mbr::kTypeEmpty)
            continue;
        if (!isExtended(type)) {
            if (!addEntry(slot, 0, at, 0))
                return false;
            continue;
        }
        extendedStart_ = view.u32(at + L::MbrEntry::kLbaStart);
        extendedSize_ = view.u32(at + L::MbrEntry::kSectorCount);
        if (!walkLogicals(extendedStart_, extendedSize_))
            return false;
    }
    return layoutFits();
}

// Partitions that share sectors, primaries inside the extended partition or logical ones outside
// it: fdisk calls such a table broken, and writing to one partition would write into another.
bool MbrPartitionTable::layoutFits() const
{
    std::vector<Ref<Partition>> sorted(partitions_.begin(), partitions_.end());
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a->start() < b->start(); });
    for (std::size_t i = 1; i < sorted.size(); ++i)
        if (sorted[i]->start() < sorted[i - 1]->start() + sorted[i - 1]->size()) {
            Refusal() << "Partitions " << sorted[i - 1]->entryIndex() + 1 << " and " << sorted[i]->entryIndex() + 1
                      << " overlap";
            return false;
        }
    const std::uint64_t extendedEnd = extendedStart_ + extendedSize_;
    for (const auto& partition : partitions_) {
        const bool logical = partition->entryIndex() >= L::Mbr::kEntryCount;
        const bool inside =
            partition->start() >= extendedStart_ && partition->start() + partition->size() <= extendedEnd;
        const bool outside =
            partition->start() >= extendedEnd || partition->start() + partition->size() <= extendedStart_;
        if (extendedSize_ != 0 && (logical ? !inside : !outside)) {
            Refusal() << "Partition " << partition->entryIndex() + 1 << (logical ? " lies outside" : " overlaps")
                      << " the extended partition";
            return false;
        }
    }
    return true;
}

// Adds the partition of the entry at offset in the sector at sectorLba; base is what its start
// is relative to (0 for primaries, the EBR for logicals).
bool MbrPartitionTable::addEntry(std::uint32_t index, std::uint64_t sectorLba, std::size_t offset, std::uint64_t base)
{
    ByteView view(sectors_[sectorLba]);
    const std::uint64_t start = base + view.u32(offset + L::MbrEntry::kLbaStart);
    const std::uint64_t size = view.u32(offset + L::MbrEntry::kSectorCount);
    if (size == 0 || start == 0 || start + size > storage_->elementCount()) {
        Refusal() << "Partition " << index + 1 << " (start " << start << ", " << size
                  << " sectors) does not lie on the disk of " << storage_->elementCount() << " sectors";
        return false;
    }
    const std::uint8_t type = view.u8(offset + L::MbrEntry::kType);
    auto partition =
        makeRef<Partition>(TableType::Mbr, index, start, size, Partition::getUUIDFromDiskIDAndEntry(signature_, index),
                           Partition::mbrTypeUUID(type), readChs(view, offset + L::MbrEntry::kChsStart),
                           readChs(view, offset + L::MbrEntry::kChsEnd));
    partition->diskSignature_ = signature_;
    partitions_.push_back(partition);
    places_.push_back({sectorLba, offset});
    return true;
}

// Follows the chain of extended boot records; each holds one logical partition and the link to
// the next. A loop, a link outside the extended partition or a damaged record fails the table.
bool MbrPartitionTable::walkLogicals(std::uint64_t extendedStart, std::uint64_t extendedSize)
{
    if (extendedStart == 0 || extendedStart + extendedSize > storage_->elementCount()) {
        Refusal() << "Extended partition at " << extendedStart << " lies beyond the disk";
        return false;
    }
    std::set<std::uint64_t> visited;
    std::uint32_t index = L::Mbr::kEntryCount;
    for (std::uint64_t ebr = extendedStart; ebr != 0;) {
        if (!visited.insert(ebr).second || visited.size() > kMaxLogicals) {
            Refusal() << "The chain of extended boot records loops at sector " << ebr;
            return false;
        }
        std::vector<std::uint8_t> sector;
        if (!readSectors(ebr, 1, sector) || !hasBootSignature(sector)) {
            Refusal() << "Extended boot record at sector " << ebr << " is unreadable or damaged";
            return false;
        }
        sectors_[ebr] = sector;
        ByteView view(sector);
        if (view.u8(entryOffset(0) + L::MbrEntry::kType) != L::Mbr::kTypeEmpty &&
            !addEntry(index++, ebr, entryOffset(0), ebr))
            return false;
        const std::uint8_t nextType = view.u8(entryOffset(1) + L::MbrEntry::kType);
        const std::uint64_t next = view.u32(entryOffset(1) + L::MbrEntry::kLbaStart);
        if (!isExtended(nextType))
            break;
        // A link of offset 0 points back at the first record of the chain.
        if (next == 0 || visited.count(extendedStart + next)) {
            Refusal() << "The chain of extended boot records loops at sector " << ebr;
            return false;
        }
        if (next >= extendedSize) {
            Refusal() << "Extended boot record at sector " << ebr << " links outside the extended partition";
            return false;
        }
        ebr = extendedStart + next;
    }
    return true;
}

Ref<ByteArray> MbrPartitionTable::diskId() const
{
    const std::uint8_t bytes[4] = {std::uint8_t(signature_), std::uint8_t(signature_ >> 8),
                                   std::uint8_t(signature_ >> 16), std::uint8_t(signature_ >> 24)};
    return ByteArray::create(bytes);
}

bool MbrPartitionTable::setDiskId(std::span<const std::uint8_t> id)
{
    if (id.size() != 4)
        return false;
    signature_ = ByteView(id).u32(0);
    // Partition ids derive from the signature.
    for (auto& partition : partitions_) {
        partition->diskSignature_ = signature_;
        partition->uuid_ = Partition::getUUIDFromDiskIDAndEntry(signature_, partition->entryIndex());
    }
    return true;
}

void MbrPartitionTable::patchEntry(std::vector<std::uint8_t>& sector, std::size_t offset,
                                   const Partition& partition) const
{
    ByteWriter out(sector);
    std::uint8_t type = 0;
    if (Partition::mbrTypeFromUUID(partition.typeUuid(), type))
        out.u8(offset + L::MbrEntry::kType, type);
    writeChs(out, offset + L::MbrEntry::kChsStart, partition.startCHS());
    writeChs(out, offset + L::MbrEntry::kChsEnd, partition.endCHS());
}

std::uint32_t MbrPartitionTable::commit(bool flush)
{
    auto updated = sectors_;
    ByteWriter(updated[0]).u32(L::Mbr::kDiskSignature, signature_);
    for (std::size_t i = 0; i < partitions_.size(); ++i)
        if (partitions_[i]->modified())
            patchEntry(updated[places_[i].sectorLba], places_[i].offset, *partitions_[i]);

    // Logical partitions first, sector 0 last: every single-sector write leaves a readable table.
    const std::uint32_t code = writeAsOne([&] {
        for (auto it = updated.rbegin(); it != updated.rend(); ++it)
            if (const std::uint32_t failed = writeChanged(it->first, sectors_[it->first], it->second))
                return failed;
        return std::uint32_t(0);
    });
    if (code)
        return code;
    sectors_ = std::move(updated);
    for (auto& partition : partitions_)
        partition->markCommitted();
    if (flush && !storage_->flush())
        return Error::Io;
    // After the flush: the kernel reads what reached the device.
    if (wroteSectors_)
        if (const std::string note = storage_->partitionTableChanged(); !note.empty())
            LogMessage(channel(), LogWarning) << note;
    return 0;
}

} // namespace Platform
