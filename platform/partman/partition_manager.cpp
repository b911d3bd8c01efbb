#include "platform/partman/partition_manager.h"

#include "platform/core/error.h"
#include "platform/partman/gpt.h"
#include "platform/partman/layout.h"
#include "platform/partman/mbr.h"

#include <cstring>

namespace Platform {

LogChannel PartitionManager::channel()
{
    static const LogChannel registered = SysLogFilter::reg("Partman");
    return registered;
}

PartitionManager::Refusal::~Refusal()
{
    Error::set(Error::Corrupt, text_.str());
    LogMessage(channel(), LogError) << Error::text();
}

Ref<PartitionManager> PartitionManager::create(Ref<Interfaces::Storage> storage, std::uint32_t)
{
    Error::set(Error::None);
    if (!storage || storage->elementSize() < Partman::Layout::Mbr::kSectorSize || storage->elementCount() < 2) {
        LogMessage(channel(), LogWarning) << "No partition table: the disk is too small or its sectors are";
        return {};
    }
    std::vector<std::uint8_t> sector0(storage->elementSize());
    if (storage->read(0, 1, sector0.data()) != 1) {
        Refusal() << "Could not read the master boot record";
        return {};
    }
    if (MbrPartitionTable::isProtective(sector0))
        return GuidPartitionTable::open(std::move(storage), std::move(sector0));
    return MbrPartitionTable::open(std::move(storage), std::move(sector0));
}

bool PartitionManager::readSectors(std::uint64_t lba, std::uint64_t count, std::vector<std::uint8_t>& out) const
{
    out.assign(std::size_t(count * storage_->elementSize()), 0);
    return lba < storage_->elementCount() && count <= storage_->elementCount() - lba &&
           storage_->read(lba, count, out.data()) == count;
}

std::uint32_t PartitionManager::writeChanged(std::uint64_t lba, const std::vector<std::uint8_t>& before,
                                             const std::vector<std::uint8_t>& now) const
{
    const std::size_t sector = storage_->elementSize();
    for (std::size_t at = 0; at < now.size(); at += sector) {
        if (at + sector <= before.size() && std::memcmp(before.data() + at, now.data() + at, sector) == 0)
            continue;
        wroteSectors_ = true;
        if (undo_->write(lba + at / sector, 1, now.data() + at) != 1) {
            const std::uint32_t code = Error::get() ? Error::get() : Error::Io;
            LogMessage(channel(), LogError) << "Could not write sector " << lba + at / sector;
            return code;
        }
    }
    return 0;
}

std::uint32_t PartitionManager::writeAsOne(const std::function<std::uint32_t()>& writes) const
{
    std::uint32_t code = 0;
    const auto outcome = undo_->run([&] { return (code = writes()) == 0; });
    if (outcome == UndoStorage::Outcome::PutBack)
        LogMessage(channel(), LogError) << "The sectors already written were put back: the table is as it was";
    else if (outcome == UndoStorage::Outcome::NotAllPutBack)
        LogMessage(channel(), LogError) << "The sectors already written could not all be put back";
    return code;
}

} // namespace Platform
