#include "platform/fs/filesys_base.h"

#include "platform/core/error.h"

namespace Platform {

bool FileSysBase::setVolumeId(std::span<const std::uint8_t> id)
{
    return undoable([&] { return writeVolumeId(id); });
}

bool FileSysBase::setPartitionOffset(std::uint64_t sector)
{
    return undoable([&] { return writePartitionOffset(sector); });
}

bool FileSysBase::mirrorBootSector()
{
    return undoable([&] { return writeBootSectorMirror(); });
}

bool FileSysBase::writePartitionOffset(std::uint64_t)
{
    Error::set(Error::NotSupported);
    return fail("this file system records no partition offset");
}

bool FileSysBase::undoable(const std::function<bool()>& change)
{
    undo_->keep();
    if (change()) {
        undo_->keep();
        return true;
    }
    if (undo_->savedSectors() == 0)
        return false;
    if (undo_->rollback())
        error_ += "; the sectors already written were put back";
    else
        error_ += "; the sectors already written could not all be put back: run the file system's checker";
    return false;
}

} // namespace Platform
