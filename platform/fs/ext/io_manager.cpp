#include "platform/fs/ext/io_manager.h"
#include "platform/fs/ext/layout.h"

#include "platform/core/error.h"

#include "platform/fs/ext/superblock_check.h"
#include "platform/storage/byte_io.h"

#include <cerrno>
#include <cstring>

#include <et/com_err.h>
#include <map>
#include <mutex>

namespace Platform {

namespace {

// Storages handed to libext2fs, by the name it is given to open.
std::mutex registryLock;
std::map<std::string, Ref<Interfaces::Storage>> registry;
std::uint64_t nextName = 0;

struct Channel {
    Ref<Interfaces::Storage> storage;
};

Interfaces::Storage& storageOf(io_channel channel)
{
    return *static_cast<Channel*>(channel->private_data)->storage;
}

// A count below zero is a byte count, as libext2fs passes for superblock-sized transfers.
std::uint64_t transferBytes(io_channel channel, int count)
{
    return count < 0 ? std::uint64_t(-count) : std::uint64_t(count) * std::uint64_t(channel->block_size);
}

errcode_t readBlocks(io_channel channel, unsigned long long block, int count, void* data)
{
    const std::uint64_t bytes = transferBytes(channel, count);
    std::span<std::uint8_t> out(static_cast<std::uint8_t*>(data), bytes);
    auto& storage = storageOf(channel);
    const std::uint64_t offset = block * std::uint64_t(channel->block_size);
    const std::uint64_t sector = storage.elementSize();
    if (offset % sector == 0 && bytes % sector == 0) {
        if (storage.read(offset / sector, bytes / sector, data) == bytes / sector)
            return 0;
    } else if (readBytes(storage, offset, out)) {
        return 0;
    }
    std::memset(data, 0, bytes);
    return EXT2_ET_SHORT_READ;
}

errcode_t writeBlocks(io_channel channel, unsigned long long block, int count, const void* data)
{
    const std::uint64_t bytes = transferBytes(channel, count);
    auto& storage = storageOf(channel);
    const std::uint64_t offset = block * std::uint64_t(channel->block_size);
    const std::uint64_t sector = storage.elementSize();
    if (offset % sector == 0 && bytes % sector == 0)
        return storage.write(offset / sector, bytes / sector, data) == bytes / sector ? 0 : EXT2_ET_SHORT_WRITE;
    return writeBytes(storage, offset, {static_cast<const std::uint8_t*>(data), bytes}) ? 0 : EXT2_ET_SHORT_WRITE;
}

errcode_t openChannel(const char* name, int, io_channel* result);

errcode_t closeChannel(io_channel channel)
{
    if (--channel->refcount > 0)
        return 0;
    delete static_cast<Channel*>(channel->private_data);
    delete[] channel->name;
    delete channel;
    return 0;
}

errcode_t setBlockSize(io_channel channel, int size)
{
    channel->block_size = size;
    return 0;
}

errcode_t read32(io_channel channel, unsigned long block, int count, void* data)
{
    return readBlocks(channel, block, count, data);
}

errcode_t write32(io_channel channel, unsigned long block, int count, const void* data)
{
    return writeBlocks(channel, block, count, data);
}

errcode_t flushChannel(io_channel channel)
{
    return storageOf(channel).flush() ? 0 : EXT2_ET_SHORT_WRITE;
}

errcode_t writeByte(io_channel channel, unsigned long offset, int count, const void* data)
{
    return writeBytes(storageOf(channel), offset, {static_cast<const std::uint8_t*>(data), std::size_t(count)})
               ? 0
               : EXT2_ET_SHORT_WRITE;
}

errcode_t setOption(io_channel, const char*, const char*)
{
    return EXT2_ET_INVALID_ARGUMENT;
}

struct_io_manager storageManager = [] {
    struct_io_manager manager{};
    manager.magic = EXT2_ET_MAGIC_IO_MANAGER;
    manager.name = "postclone storage";
    manager.open = openChannel;
    manager.close = closeChannel;
    manager.set_blksize = setBlockSize;
    manager.read_blk = read32;
    manager.write_blk = write32;
    manager.flush = flushChannel;
    manager.write_byte = writeByte;
    manager.set_option = setOption;
    manager.read_blk64 = readBlocks;
    manager.write_blk64 = writeBlocks;
    return manager;
}();

errcode_t openChannel(const char* name, int, io_channel* result)
{
    Ref<Interfaces::Storage> storage;
    {
        std::lock_guard guard(registryLock);
        const auto it = registry.find(name ? name : "");
        if (it == registry.end())
            return ENOENT;
        storage = it->second;
    }
    auto* channel = new (std::nothrow) struct_io_channel{};
    auto* copy = new (std::nothrow) char[std::strlen(name) + 1];
    auto* data = new (std::nothrow) Channel{std::move(storage)};
    if (!channel || !copy || !data) {
        delete channel;
        delete[] copy;
        delete data;
        return EXT2_ET_NO_MEMORY;
    }
    std::strcpy(copy, name);
    channel->magic = EXT2_ET_MAGIC_IO_CHANNEL;
    channel->manager = &storageManager;
    channel->name = copy;
    channel->block_size = 1024;
    channel->refcount = 1;
    channel->private_data = data;
    *result = channel;
    return 0;
}

} // namespace

ExtFileSystem::ExtFileSystem(Ref<Interfaces::Storage> storage, int flags) : sectorSize_(storage->elementSize())
{
    {
        std::lock_guard guard(registryLock);
        name_ = "storage-" + std::to_string(nextName++);
        registry[name_] = storage;
    }
    const auto superblock = readBytes(*storage, Ext::Layout::kSuperblockOffset, Ext::Layout::kSuperblockSize);
    openProblem_ = superblock.empty()
                       ? "the superblock cannot be read"
                       : extSuperblockProblem(superblock, storage->elementCount() * storage->elementSize());
    if (!openProblem_.empty()) {
        openError_ = EXT2_ET_CORRUPT_SUPERBLOCK;
        return;
    }
    openError_ = ext2fs_open2(name_.c_str(), nullptr, flags | EXT2_FLAG_64BITS, 0, 0, &storageManager, &fs_);
    if (!openError_ && !(flags & EXT2_FLAG_SUPER_ONLY))
        if ((openError_ = ext2fs_check_desc(fs_)))
            openProblem_ = "the group descriptors are damaged (" + extErrorText(openError_) +
                           "); run e2fsck -f, which repairs them from a backup";
    if (openError_) {
        if (fs_)
            ext2fs_free(fs_);
        fs_ = nullptr;
        if (openProblem_.empty())
            openProblem_ = extErrorText(openError_);
    }
}

errcode_t ExtFileSystem::close()
{
    if (!fs_)
        return 0;
    const errcode_t result = ext2fs_close2(fs_, 0);
    if (result)
        ext2fs_free(fs_);
    fs_ = nullptr;
    return result;
}

ExtFileSystem::~ExtFileSystem()
{
    if (fs_)
        ext2fs_free(fs_); // not flushed: only close() writes
    std::lock_guard guard(registryLock);
    registry.erase(name_);
}

std::string extErrorText(errcode_t code)
{
    static const bool tableLoaded = [] {
        initialize_ext2_error_table();
        return true;
    }();
    (void)tableLoaded;
    return error_message(code);
}

std::uint32_t fromExtError(errcode_t code)
{
    switch (code) {
    case EXT2_ET_FILE_NOT_FOUND:
        return Error::PathNotFound;
    case EXT2_ET_DIR_EXISTS:
    case EXT2_ET_FILE_EXISTS:
        return Error::Exists;
    case EXT2_ET_NO_DIRECTORY:
        return Error::NotDirectory;
    case EXT2_ET_RO_FILSYS:
    case EXT2_ET_FILE_RO:
        return Error::ReadOnly;
    case EXT2_ET_DIR_NO_SPACE:
    case EXT2_ET_BLOCK_ALLOC_FAIL:
    case EXT2_ET_INODE_ALLOC_FAIL:
        return Error::NoSpace;
    case EXT2_ET_FILE_TOO_BIG:
        return Error::TooLarge;
    case EXT2_ET_UNSUPP_FEATURE:
    case EXT2_ET_RO_UNSUPP_FEATURE:
    case EXT2_ET_UNIMPLEMENTED:
    case EXT2_ET_OP_NOT_SUPPORTED:
        return Error::NotSupported;
    case EXT2_ET_SHORT_READ:
    case EXT2_ET_SHORT_WRITE:
        return Error::Io;
    default:
        // Small codes are errno values; the rest of the table describes damaged structures.
        return code > 0 && code < 4096 ? Error::fromErrno(int(code)) : Error::Corrupt;
    }
}

void setExtError(errcode_t code, const std::string& what)
{
    Error::set(fromExtError(code), what + extErrorText(code));
}

} // namespace Platform
