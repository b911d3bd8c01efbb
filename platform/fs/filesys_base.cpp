#include "platform/fs/filesys_base.h"

#include "platform/core/error.h"
#include "platform/fs/family.h"
#include "platform/storage/byte_io.h"

namespace Platform {

bool FileSysBase::setVolumeId(std::span<const std::uint8_t> id)
{
    const FsFamily& family = fsFamily(type());
    if (id.size() != family.idLength)
        return fail(Error::Invalid, std::string("the ") + family.name + " " + family.idName + " is " +
                                        std::to_string(family.idLength) + " bytes, not " + std::to_string(id.size()));
    return undoable([&] { return writeVolumeId(id); });
}

Ref<ByteArray> FileSysBase::idAt(std::uint64_t offset) const
{
    const auto bytes = readBytes(*storage_, offset, fsFamily(type()).idLength);
    return bytes.empty() ? Ref<ByteArray>() : ByteArray::create(bytes);
}

bool FileSysBase::setPartitionOffset(std::uint64_t sector)
{
    return undoable([&] { return writePartitionOffset(sector); });
}

bool FileSysBase::setGeometry(std::uint32_t heads, std::uint32_t sectorsPerTrack)
{
    return undoable([&] { return writeGeometry(heads, sectorsPerTrack); });
}

Ref<Filesys> FileSysBase::openFiles(Ref<Interfaces::Storage>, Access, std::uint32_t) const
{
    Error::set(Error::NotSupported);
    return {};
}

bool FileSysBase::writePartitionOffset(std::uint64_t)
{
    return fail(Error::NotSupported, "this file system records no partition offset");
}

bool FileSysBase::writeGeometry(std::uint32_t, std::uint32_t)
{
    return fail(Error::NotSupported, "this file system records no disk geometry");
}

bool FileSysBase::undoable(const std::function<bool()>& change)
{
    const auto outcome = undo_->run(change);
    if (outcome == UndoStorage::Outcome::PutBack)
        Error::set(Error::get(), Error::text() + "; the sectors already written were put back");
    else if (outcome == UndoStorage::Outcome::NotAllPutBack)
        Error::set(Error::get(), Error::text() +
                                     "; the sectors already written could not all be put back: run the file "
                                     "system's checker");
    return outcome == UndoStorage::Outcome::Done;
}

} // namespace Platform
