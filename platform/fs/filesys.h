#pragma once
// The file-system facade: files and directories inside a file system, whether the host mounted it
// (a directory path) or it lies on one of our storages (a partition inside an image or a device).
// Paths are absolute, with "/" between names. Failures are null or false results with
// Platform::Error set (32 when a path does not exist).

#include "platform/core/access.h"
#include "platform/core/area.h"
#include "platform/core/ref.h"
#include "platform/log/log.h"
#include "platform/storage/storage.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Platform {

// Open flags as the library passes them.
namespace OpenFlags {
inline constexpr std::uint32_t Read = 0x3;
inline constexpr std::uint32_t Write = 0x10;
inline constexpr std::uint32_t Create = 0x100;
inline constexpr std::uint32_t Truncate = 0x200;
inline constexpr std::uint32_t ReadWriteExisting = 0x13;
inline constexpr std::uint32_t CreateOrOpen = 0x513;
inline constexpr std::uint32_t CreateOrTruncate = 0x4313;
inline constexpr std::uint32_t FileSystemByPath = 0x11;
// For Filesys::create: a volume Windows left hibernated or with an open log is opened for writing
// anyway, its log reset, for a caller that discards that Windows session.
inline constexpr std::uint32_t DiscardWindowsSession = 0x1000;
// For Filesys::create: a host folder of the run's own (its temporary files), never watched nor
// held back by a dry run's FileChangeLog.
inline constexpr std::uint32_t Unwatched = 0x2000;
} // namespace OpenFlags

class File : public Object {
public:
    virtual std::uint64_t size() = 0;
    virtual bool seek(std::uint64_t position) = 0;
    // Reads up to length bytes at the position and advances it; the count read (0 at the end).
    virtual std::uint64_t read(void* buffer, std::uint64_t length) = 0;
    virtual std::uint64_t write(const void* buffer, std::uint64_t length) = 0;
    // Grows (with zeros) or shrinks the file; the size it has afterwards.
    virtual std::uint64_t resize(std::uint64_t size) = 0;
    virtual bool flush() = 0;
    // Where the file's contents lie, in file order, as sectors of the file system's storage (for a
    // partition, counted from its start); runs that continue each other are one area, and sectors
    // past the end of the file are left out. Nothing, with Error set, when the family cannot say
    // (NotSupported) or the file has parts no sector holds (kept in its record, or holes).
    virtual std::optional<std::vector<Area>> allocation();
};

// The file's whole contents from its start; nothing when it cannot be read whole (Error as the
// file set it).
std::optional<std::vector<std::uint8_t>> readWholeFile(File& file);

struct DirectoryEntry {
    std::string name;
    std::uint32_t type; // 1 a directory, 0 anything else
    std::uint64_t size;
};

class Directory : public Object {
public:
    // The next entry ("." and ".." left out); false at the end.
    virtual bool next(DirectoryEntry& entry) = 0;
};

class Filesys : public Object {
public:
    // A host directory path (a mounted file system).
    static Ref<Filesys> create(const std::string& path, std::uint32_t flags, Access access);
    // The file system on a storage, as its own structures say.
    static Ref<Filesys> create(Ref<Interfaces::Storage> storage, std::uint32_t flags,
                               Access access = Access::ReadWrite);

    virtual Ref<File> openFile(const std::string& path, std::uint32_t flags) = 0;
    virtual Ref<Directory> openDirectory(const std::string& path) = 0;
    // In an existing directory; false when the name is taken.
    virtual bool createDirectory(const std::string& path) = 0;
    virtual bool removeFile(const std::string& path) = 0;
    virtual bool flush() = 0;
    virtual bool readOnly() const = 0;

    // Whether Windows shut the volume down cleanly, as its NTFS log says; nothing for the other
    // file systems, or when the log cannot be read.
    virtual std::optional<bool> windowsLogClean() { return std::nullopt; }

    // Where the facades say why they refuse a file system or an operation.
    static LogChannel channel();
};

} // namespace Platform
