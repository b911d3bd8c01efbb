#pragma once
// One file system on a storage, as far as post-processing changes it: its volume id and the
// places where it records its own position and the disk's geometry.

#include "platform/core/access.h"
#include "platform/core/byte_array.h"
#include "platform/core/error.h"
#include "platform/core/fs_type.h"
#include "platform/fs/filesys.h"
#include "platform/storage/undo_storage.h"

#include <functional>
#include <optional>
#include <span>
#include <string>

namespace Platform {

// What a detector answers for a structure that carries its family's signature but cannot be
// right: nothing, with Error Corrupt and what is wrong.
inline std::nullopt_t damaged(std::string what)
{
    Error::set(Error::Corrupt, std::move(what));
    return std::nullopt;
}

class FileSysBase : public Object {
public:
    virtual std::uint32_t type() const = 0;
    // The volume id as the file system stores it (4, 8 or 16 bytes).
    virtual Ref<ByteArray> volumeId() const = 0;
    // Each change below is all or nothing: false (with Error's code and text) when it cannot be
    // made, and a write that fails part-way has the sectors already written put back.

    // false when the id is not as long as the family's ids, or cannot be written.
    bool setVolumeId(std::span<const std::uint8_t> id);
    // The partition's first sector, for the families that record it. The others answer false
    // with Error 0x10002 (not supported by this file system).
    bool setPartitionOffset(std::uint64_t sector);
    // The disk geometry a BIOS boot sector records (FAT, NTFS), in the boot sector and its
    // backup. The other families answer false with Error 0x10002.
    bool setGeometry(std::uint32_t heads, std::uint32_t sectorsPerTrack);
    // The file facade over this file system, built from what was parsed here, on storage (this
    // volume's storage or a staging layer over it); null with Error 0x10002 for the families
    // without one. flags: those of Filesys::create.
    virtual Ref<Filesys> openFiles(Ref<Interfaces::Storage> storage, Access access, std::uint32_t flags) const;
    // Why this file system must not be written at all (its structures are impossible), or empty.
    virtual std::string refusal() const { return {}; }

protected:
    explicit FileSysBase(Ref<Interfaces::Storage> storage)
        : undo_(makeRef<UndoStorage>(std::move(storage))), storage_(undo_)
    {
    }

    // The volume id stored at offset, as long as the family's ids are.
    Ref<ByteArray> idAt(std::uint64_t offset) const;

    // The changes as each family makes them, writing through storage_; the id passed has the
    // family's length.
    virtual bool writeVolumeId(std::span<const std::uint8_t> id) = 0;
    virtual bool writePartitionOffset(std::uint64_t sector);
    virtual bool writeGeometry(std::uint32_t heads, std::uint32_t sectorsPerTrack);

    static bool fail(std::uint32_t code, std::string text)
    {
        Error::set(code, std::move(text));
        return false;
    }

private:
    bool undoable(const std::function<bool()>& change);

    Ref<UndoStorage> undo_;

protected:
    Ref<Interfaces::Storage> storage_;
};

class MountHelper {
public:
    // The type code of the file system on storage, judged from its own structures (never from a
    // partition type); FsNone when there is none we can handle, a damaged one included.
    static std::uint32_t probe(const Ref<Interfaces::Storage>& storage);
    // The file system on storage, whatever its type; null when there is none we can handle. One
    // look at the structures serves both the type and the object. A file system whose signature
    // is there but whose structures are impossible comes back refusing every change.
    static Ref<FileSysBase> open(Ref<Interfaces::Storage> storage);
    // The file system of that type on storage, or null when it does not hold one.
    static Ref<FileSysBase> createFilesysBase(Ref<Interfaces::Storage> storage, std::uint32_t type);
    static const char* typeName(std::uint32_t type);
};

} // namespace Platform
