#include "platform/partman/gpt.h"

#include "platform/core/bytes.h"
#include "platform/core/crc32.h"
#include "platform/core/error.h"
#include "platform/partman/layout.h"

#include <algorithm>
#include <cstring>

namespace Platform {

namespace H = Partman::Layout::GptHeader;
namespace E = Partman::Layout::GptEntry;
namespace M = Partman::Layout::Mbr;

namespace {

constexpr std::size_t kMaxEntryBytes = 4 << 20;

std::uint32_t headerCrc(std::span<const std::uint8_t> header, std::uint32_t size)
{
    std::vector<std::uint8_t> copy(header.begin(), header.begin() + size);
    ByteWriter(copy).u32(H::kHeaderCrc, 0);
    return crc32(copy);
}

Guid guidAt(std::span<const std::uint8_t> bytes, std::size_t offset)
{
    Guid guid{};
    std::copy_n(bytes.begin() + std::ptrdiff_t(offset), guid.size(), guid.begin());
    return guid;
}

} // namespace

Ref<PartitionManager> GuidPartitionTable::open(Ref<Interfaces::Storage> storage,
                                               std::vector<std::uint8_t> protectiveMbr)
{
    auto table = makeRef<GuidPartitionTable>(std::move(storage));
    if (!table || !table->load(std::move(protectiveMbr)))
        return {};
    return table;
}

// Reads and checks one copy: signature, sizes, header CRC, self pointer, entry array CRC.
std::optional<GuidPartitionTable::Copy> GuidPartitionTable::readCopy(std::uint64_t headerLba, const char* which) const
{
    Copy copy;
    copy.headerLba = headerLba;
    if (!readSectors(headerLba, 1, copy.header)) {
        LogMessage(channel(), LogWarning)
            << "The " << which << " GPT header at sector " << headerLba << " cannot be read";
        return std::nullopt;
    }
    ByteView view(copy.header);
    const std::uint32_t size = view.u32(H::kHeaderSize);
    const std::uint32_t count = view.u32(H::kEntryCount);
    const std::uint32_t entrySize = view.u32(H::kEntrySize);
    copy.entriesLba = view.u64(H::kEntriesLba);
    const char* problem = nullptr;
    if (std::memcmp(copy.header.data(), H::kSignature, 8) != 0)
        problem = "has no GPT signature";
    else if (size < H::kMinimumSize || size > copy.header.size())
        problem = "has an impossible header size";
    else if (view.u32(H::kHeaderCrc) != headerCrc(copy.header, size))
        problem = "has a bad header CRC";
    else if (view.u64(H::kMyLba) != headerLba)
        problem = "does not point at itself";
    else if (entrySize < E::kMinimumSize || entrySize % 8 != 0 || count == 0 ||
             std::uint64_t(count) * entrySize > kMaxEntryBytes)
        problem = "has an impossible entry array size";
    if (!problem)
        problem = layoutProblem(copy.header, headerLba);
    if (!problem) {
        const std::uint64_t bytes = std::uint64_t(count) * entrySize;
        const std::uint64_t sectors = (bytes + copy.header.size() - 1) / copy.header.size();
        if (!readSectors(copy.entriesLba, sectors, copy.entries))
            problem = "has an unreadable entry array";
        else if (crc32(std::span(copy.entries).first(bytes)) != view.u32(H::kEntriesCrc))
            problem = "has a bad entry array CRC";
    }
    if (problem) {
        LogMessage(channel(), LogWarning) << "The " << which << " GPT header at sector " << headerLba << " " << problem;
        return std::nullopt;
    }
    return copy;
}

// Where the header puts its entry array and the usable area, checked as gdisk checks a header:
// an array that reaches into the usable area would be written over partition data.
const char* GuidPartitionTable::layoutProblem(std::span<const std::uint8_t> header, std::uint64_t headerLba) const
{
    ByteView view(header);
    const std::uint64_t firstUsable = view.u64(H::kFirstUsableLba);
    const std::uint64_t lastUsable = view.u64(H::kLastUsableLba);
    const std::uint64_t entriesLba = view.u64(H::kEntriesLba);
    const std::uint64_t sectorSize = storage_->elementSize();
    const std::uint64_t arraySectors =
        (std::uint64_t(view.u32(H::kEntryCount)) * view.u32(H::kEntrySize) + sectorSize - 1) / sectorSize;
    const bool primary = headerLba == 1;
    if (firstUsable > lastUsable || firstUsable < 2)
        return "has an impossible usable area";
    if (lastUsable >= storage_->elementCount())
        return "has a usable area past the end of the disk";
    if (entriesLba < 2 || entriesLba == headerLba || entriesLba > storage_->elementCount() - arraySectors)
        return "has its entry array off the disk or on a header";
    const bool arrayBeforeUsable = entriesLba + arraySectors <= firstUsable;
    const bool arrayAfterUsable = entriesLba > lastUsable;
    if (primary ? !arrayBeforeUsable : !arrayAfterUsable)
        return "has its entry array inside the usable area";
    if (!primary && entriesLba + arraySectors > headerLba)
        return "has its entry array over its header";
    return nullptr;
}

bool GuidPartitionTable::load(std::vector<std::uint8_t> protectiveMbr)
{
    protectiveMbr_ = std::move(protectiveMbr);
    const std::uint64_t lastLba = storage_->elementCount() - 1;
    primary_ = readCopy(1, "primary");
    const std::uint64_t backupLba = primary_ ? ByteView(primary_->header).u64(H::kAlternateLba) : lastLba;
    if (backupLba > 1 && backupLba <= lastLba)
        backup_ = readCopy(backupLba, "backup");
    const auto& good = primary_ ? primary_ : backup_;
    if (!good) {
        Refusal() << "Both GPT copies are damaged; not touching this disk";
        return false;
    }
    ByteView view(good->header);
    headerTemplate_ = good->header;
    diskGuid_ = guidAt(good->header, H::kDiskGuid);
    entryCount_ = view.u32(H::kEntryCount);
    entrySize_ = view.u32(H::kEntrySize);
    lastUsable_ = view.u64(H::kLastUsableLba);
    entries_.assign(good->entries.begin(), good->entries.begin() + std::ptrdiff_t(entryCount_ * entrySize_));
    return loadPartitions();
}

bool GuidPartitionTable::loadPartitions()
{
    for (std::uint32_t slot = 0; slot < entryCount_; ++slot) {
        const auto entry = std::span(entries_).subspan(std::size_t(slot) * entrySize_, entrySize_);
        const Guid type = guidAt(entry, E::kTypeGuid);
        if (type == Guid{})
            continue;
        ByteView view(entry);
        const std::uint64_t first = view.u64(E::kFirstLba);
        const std::uint64_t last = view.u64(E::kLastLba);
        if (first == 0 || last < first || last >= storage_->elementCount()) {
            Refusal() << "GPT partition " << slot + 1 << " (sectors " << first << " to " << last
                      << ") does not lie on the disk of " << storage_->elementCount() << " sectors";
            return false;
        }
        partitions_.push_back(makeRef<Partition>(TableType::Gpt, slot, first, last - first + 1,
                                                 guidAt(entry, E::kUniqueGuid), type, 0u, 0u));
        slots_.push_back(slot);
    }
    return true;
}

bool GuidPartitionTable::setDiskId(std::span<const std::uint8_t> id)
{
    if (id.size() != diskGuid_.size())
        return false;
    std::copy(id.begin(), id.end(), diskGuid_.begin());
    return true;
}

std::uint64_t GuidPartitionTable::entriesSectors() const
{
    const std::uint64_t sector = storage_->elementSize();
    return (std::uint64_t(entryCount_) * entrySize_ + sector - 1) / sector;
}

std::vector<std::uint8_t> GuidPartitionTable::buildEntries() const
{
    std::vector<std::uint8_t> entries(std::size_t(entriesSectors() * storage_->elementSize()), 0);
    std::copy(entries_.begin(), entries_.end(), entries.begin());
    for (std::size_t i = 0; i < partitions_.size(); ++i) {
        ByteWriter out{std::span<std::uint8_t>(entries).subspan(slots_[i] * entrySize_, entrySize_)};
        out.bytes(E::kTypeGuid, partitions_[i]->typeUuid());
        out.bytes(E::kUniqueGuid, partitions_[i]->uuid());
    }
    return entries;
}

std::vector<std::uint8_t> GuidPartitionTable::buildHeader(std::uint64_t myLba, std::uint64_t alternateLba,
                                                          std::uint64_t entriesLba, std::uint64_t lastUsable,
                                                          std::uint32_t entriesCrc) const
{
    std::vector<std::uint8_t> header = headerTemplate_;
    ByteWriter out(header);
    out.u64(H::kMyLba, myLba);
    out.u64(H::kAlternateLba, alternateLba);
    out.u64(H::kLastUsableLba, lastUsable);
    out.bytes(H::kDiskGuid, diskGuid_);
    out.u64(H::kEntriesLba, entriesLba);
    out.u32(H::kEntriesCrc, entriesCrc);
    out.u32(H::kHeaderCrc, headerCrc(header, ByteView(header).u32(H::kHeaderSize)));
    return header;
}

// The protective entry covers the whole disk; after a move to a larger disk it grows with it.
std::vector<std::uint8_t> GuidPartitionTable::buildProtectiveMbr(std::uint64_t lastLba) const
{
    std::vector<std::uint8_t> mbr = protectiveMbr_;
    for (std::size_t slot = 0; slot < M::kEntryCount; ++slot) {
        const std::size_t at = M::kEntries + slot * M::kEntrySize;
        ByteView view(mbr);
        if (view.u8(at + 4) != M::kTypeProtective || view.u32(at + 8) != 1 || view.u32(at + 12) == 0xFFFFFFFF)
            continue;
        ByteWriter(mbr).u32(at + 12, std::uint32_t(std::min<std::uint64_t>(lastLba, 0xFFFFFFFF)));
    }
    return mbr;
}

std::uint32_t GuidPartitionTable::commit(bool flush)
{
    const std::uint64_t lastLba = storage_->elementCount() - 1;
    const std::uint64_t backupEntriesLba = lastLba - entriesSectors();
    const bool moved = !backup_ || backup_->headerLba != lastLba;
    std::uint64_t lastUsable = lastUsable_;
    if (moved)
        lastUsable = backupEntriesLba - 1;
    for (const auto& partition : partitions_)
        if (partition->start() + partition->size() - 1 > lastUsable) {
            Refusal() << "The disk is too small for its GPT partitions";
            return Error::Invalid;
        }
    const std::uint64_t primaryEntriesLba = primary_ ? primary_->entriesLba : 2;

    const auto entries = buildEntries();
    const std::uint32_t crc = crc32(std::span(entries).first(std::size_t(entryCount_) * entrySize_));
    const auto backupHeader = buildHeader(lastLba, 1, backupEntriesLba, lastUsable, crc);
    const auto primaryHeader = buildHeader(1, lastLba, primaryEntriesLba, lastUsable, crc);
    const std::vector<std::uint8_t> none;
    const bool backupInPlace = backup_ && !moved;

    // Backup first: while the primary is untouched, a failed write leaves the old table readable.
    const std::uint32_t code = writeAsOne([&] {
        std::uint32_t failed = writeChanged(backupEntriesLba, backupInPlace ? backup_->entries : none, entries);
        if (!failed)
            failed = writeChanged(lastLba, backupInPlace ? backup_->header : none, backupHeader);
        if (!failed)
            failed = writeChanged(primaryEntriesLba, primary_ ? primary_->entries : none, entries);
        if (!failed)
            failed = writeChanged(1, primary_ ? primary_->header : none, primaryHeader);
        if (!failed && moved)
            failed = writeChanged(0, protectiveMbr_, buildProtectiveMbr(lastLba));
        return failed;
    });
    if (code)
        return code;

    primary_ = Copy{1, primaryEntriesLba, primaryHeader, entries};
    backup_ = Copy{lastLba, backupEntriesLba, backupHeader, entries};
    headerTemplate_ = primaryHeader;
    entries_.assign(entries.begin(), entries.begin() + std::ptrdiff_t(entryCount_ * entrySize_));
    lastUsable_ = lastUsable;
    protectiveMbr_ = buildProtectiveMbr(lastLba);
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
