#include "platform/fs/ntfs/filesys.h"
#include "platform/fs/listed_directory.h"

#include "platform/core/error.h"
#include "platform/fs/area_collector.h"
#include "platform/log/log.h"
#include "platform/storage/byte_io.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <endian.h>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

extern "C" {
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/cache.h>
#include <ntfs-3g/device.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/logfile.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>
}
// The library's headers define these as macros.
#undef min
#undef max

namespace Platform {

namespace {

LogChannel ntfsChannel()
{
    static const LogChannel registered = SysLogFilter::reg("NTFS");
    return registered;
}

// The device libntfs-3g reads and writes: a storage and a position.
struct Device {
    Ref<Interfaces::Storage> storage;
    s64 position = 0;
    s64 size() const { return s64(storage->elementCount() * storage->elementSize()); }
};

Device& deviceOf(ntfs_device* dev)
{
    return *static_cast<Device*>(dev->d_private);
}

int deviceOpen(ntfs_device* dev, int flags)
{
    NDevSetOpen(dev);
    if ((flags & O_ACCMODE) == O_RDONLY)
        NDevSetReadOnly(dev);
    return 0;
}

int deviceClose(ntfs_device* dev)
{
    NDevClearOpen(dev);
    return 0;
}

s64 deviceSeek(ntfs_device* dev, s64 offset, int whence)
{
    Device& device = deviceOf(dev);
    const s64 base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? device.position : device.size();
    if (base + offset < 0 || base + offset > device.size()) { // mount probes past the end
        errno = EINVAL;
        return -1;
    }
    return device.position = base + offset;
}

s64 devicePread(ntfs_device* dev, void* buffer, s64 count, s64 offset)
{
    Device& device = deviceOf(dev);
    count = std::max<s64>(0, std::min(count, device.size() - offset));
    if (!readBytes(*device.storage, std::uint64_t(offset), {static_cast<std::uint8_t*>(buffer), std::size_t(count)})) {
        errno = EIO;
        return -1;
    }
    return count;
}

s64 devicePwrite(ntfs_device* dev, const void* buffer, s64 count, s64 offset)
{
    Device& device = deviceOf(dev);
    if (NDevReadOnly(dev)) {
        errno = EROFS;
        return -1;
    }
    count = std::max<s64>(0, std::min(count, device.size() - offset));
    if (!writeBytes(*device.storage, std::uint64_t(offset),
                    {static_cast<const std::uint8_t*>(buffer), std::size_t(count)})) {
        errno = EIO;
        return -1;
    }
    NDevSetDirty(dev);
    return count;
}

s64 deviceRead(ntfs_device* dev, void* buffer, s64 count)
{
    const s64 done = devicePread(dev, buffer, count, deviceOf(dev).position);
    if (done > 0)
        deviceOf(dev).position += done;
    return done;
}

s64 deviceWrite(ntfs_device* dev, const void* buffer, s64 count)
{
    const s64 done = devicePwrite(dev, buffer, count, deviceOf(dev).position);
    if (done > 0)
        deviceOf(dev).position += done;
    return done;
}

int deviceSync(ntfs_device* dev)
{
    return deviceOf(dev).storage->flush() ? 0 : -1;
}

int deviceStat(ntfs_device* dev, struct stat* info)
{
    *info = {};
    info->st_mode = S_IFREG;
    info->st_size = deviceOf(dev).size();
    return 0;
}

int deviceIoctl(ntfs_device*, unsigned long, void*)
{
    errno = ENOTTY;
    return -1;
}

ntfs_device_operations storageOperations = {deviceOpen,  deviceClose,  deviceSeek, deviceRead, deviceWrite,
                                            devicePread, devicePwrite, deviceSync, deviceStat, deviceIoctl};

// A UTF-16 name for libntfs-3g, freed with the object.
struct UnicodeName {
    ntfschar* text = nullptr;
    int length = -1;
    explicit UnicodeName(const std::string& name) { length = ntfs_mbstoucs(name.c_str(), &text); }
    ~UnicodeName() { std::free(text); }
    UnicodeName(const UnicodeName&) = delete;
    UnicodeName& operator=(const UnicodeName&) = delete;
};

void setError()
{
    Error::setFromErrno();
}

} // namespace

struct NtfsFilesys::Mount {
    ntfs_volume* volume = nullptr;
    ntfs_device* device = nullptr;
    std::unique_ptr<Device> data;

    ~Mount()
    {
        if (volume)
            ntfs_umount(volume, FALSE); // frees the device too
    }
};

struct NtfsFilesys::OpenData {
    ntfs_inode* inode;
    ntfs_attr* data;
    OpenData(ntfs_inode* openInode, ntfs_attr* openAttribute) : inode(openInode), data(openAttribute) {}
    OpenData(const OpenData&) = delete;
    OpenData& operator=(const OpenData&) = delete;
    ~OpenData()
    {
        ntfs_attr_close(data);
        ntfs_inode_close(inode);
    }
};

namespace {

class NtfsFile : public File {
public:
    NtfsFile(Ref<NtfsFilesys> owner, std::shared_ptr<NtfsFilesys::OpenData> open)
        : owner_(std::move(owner)), open_(std::move(open)), inode_(open_->inode), data_(open_->data)
    {
    }

    std::uint64_t size() override { return std::uint64_t(data_->data_size); }
    bool seek(std::uint64_t position) override
    {
        position_ = position;
        return true;
    }
    std::uint64_t read(void* buffer, std::uint64_t length) override
    {
        const s64 done = ntfs_attr_pread(data_, s64(position_), s64(length), buffer);
        if (done < 0) {
            setError();
            return 0;
        }
        position_ += std::uint64_t(done);
        return std::uint64_t(done);
    }
    std::uint64_t write(const void* buffer, std::uint64_t length) override
    {
        const s64 done = ntfs_attr_pwrite(data_, s64(position_), s64(length), buffer);
        if (done < 0) {
            setError();
            return 0;
        }
        position_ += std::uint64_t(done);
        ntfs_inode_mark_dirty(inode_);
        return std::uint64_t(done);
    }
    std::uint64_t resize(std::uint64_t newSize) override
    {
        if (ntfs_attr_truncate(data_, s64(newSize)) != 0)
            setError();
        ntfs_inode_mark_dirty(inode_);
        return size();
    }
    bool flush() override { return ntfs_inode_sync(inode_) == 0; }
    std::optional<std::vector<Area>> allocation() override
    {
        if (!NAttrNonResident(data_)) {
            Error::set(Error::NotSupported, "the file's data is kept inside its record");
            return std::nullopt;
        }
        if (NAttrCompressed(data_) || NAttrEncrypted(data_)) {
            Error::set(Error::NotSupported, "the file is compressed or encrypted");
            return std::nullopt;
        }
        if (ntfs_attr_map_whole_runlist(data_) != 0) {
            setError();
            return std::nullopt;
        }
        ntfs_volume* volume = inode_->vol;
        AreaCollector areas(deviceOf(volume->dev).storage->elementSize(), size());
        for (const runlist_element* run = data_->rl; run && run->length > 0 && !areas.complete(); ++run) {
            if (run->lcn < 0) {
                Error::set(Error::NotSupported, "the file has holes");
                return std::nullopt;
            }
            if (!areas.add(std::uint64_t(run->lcn) * volume->cluster_size,
                           std::uint64_t(run->length) * volume->cluster_size))
                return std::nullopt;
        }
        if (!areas.complete()) {
            Error::set(Error::Corrupt, "the file's runs are shorter than its size");
            return std::nullopt;
        }
        return areas.take();
    }

private:
    Ref<NtfsFilesys> owner_;
    std::shared_ptr<NtfsFilesys::OpenData> open_;
    ntfs_inode* inode_;
    ntfs_attr* data_;
    std::uint64_t position_ = 0;
};

struct Listing {
    ntfs_volume* volume;
    std::vector<DirectoryEntry> entries;
    // The size of a file the facade holds open: its record must not be opened a second time.
    std::function<std::optional<std::uint64_t>(std::uint64_t record)> openSize;
};

int listName(void* context, const ntfschar* name, const int length, const int nameType, const s64, const MFT_REF mref,
             const unsigned type)
{
    auto* listing = static_cast<Listing*>(context);
    if (nameType == FILE_NAME_DOS)
        return 0; // the 8.3 alias of a name listed already
    char* text = nullptr;
    if (ntfs_ucstombs(name, length, &text, 0) < 0)
        return 0;
    const std::string entry = text;
    std::free(text);
    if (entry == "." || entry == ".." || MREF(mref) < FILE_first_user)
        return 0;
    std::uint64_t size = 0;
    if (type != NTFS_DT_DIR) {
        if (const auto open = listing->openSize(MREF(mref)))
            size = *open;
        else if (ntfs_inode* inode = ntfs_inode_open(listing->volume, MREF(mref))) {
            size = std::uint64_t(inode->data_size);
            ntfs_inode_close(inode);
        }
    }
    listing->entries.push_back({entry, type == NTFS_DT_DIR ? 1u : 0u, size});
    return 0;
}

} // namespace

NtfsFilesys::NtfsFilesys(std::unique_ptr<Mount> mount, Access access) : FacadeBase(access), mount_(std::move(mount)) {}

NtfsFilesys::~NtfsFilesys() = default;

namespace {

// libntfs-3g's mount over our storage; null with errno set.
std::unique_ptr<NtfsFilesys::Mount> mountStorage(const Ref<Interfaces::Storage>& storage, unsigned long flags)
{
    ntfs_log_set_handler(ntfs_log_handler_null);
    auto mount = std::make_unique<NtfsFilesys::Mount>();
    mount->data = std::make_unique<Device>(Device{storage, 0});
    mount->device = ntfs_device_alloc("postclone-ntfs", 0, &storageOperations, mount->data.get());
    if (!mount->device)
        return nullptr;
    mount->volume = ntfs_device_mount(mount->device, flags);
    if (!mount->volume) {
        const int error = errno;
        ntfs_device_free(mount->device);
        errno = error;
        return nullptr;
    }
    ntfs_create_lru_caches(mount->volume);
    ntfs_set_ignore_case(mount->volume);
    return mount;
}

} // namespace

Ref<NtfsFilesys> NtfsFilesys::open(Ref<Interfaces::Storage> storage, Access access, bool force)
{
    if (!storage)
        return {};
    const bool readOnly = access == Access::ReadOnly;
    auto mount = mountStorage(storage, readOnly ? NTFS_MNT_RDONLY
                                       : force  ? NTFS_MNT_IGNORE_HIBERFILE | NTFS_MNT_RECOVER
                                                : 0);
    if (!mount && !readOnly && errno == EPERM) {
        // Hibernated, or a log Windows did not close: look, but do not touch.
        access = Access::ReadOnly;
        mount = mountStorage(storage, NTFS_MNT_RDONLY);
        if (mount)
            LogMessage(ntfsChannel(), LogWarning)
                << "The NTFS volume is hibernated or was not shut down cleanly; it is open read-only";
    }
    if (!mount) {
        setError();
        return {};
    }
    return makeRef<NtfsFilesys>(std::move(mount), access);
}

std::optional<bool> NtfsFilesys::windowsLogClean()
{
    ntfs_inode* log = ntfs_inode_open(mount_->volume, FILE_LogFile);
    ntfs_attr* data = log ? ntfs_attr_open(log, AT_DATA, AT_UNNAMED, 0) : nullptr;
    std::optional<bool> clean;
    if (data) {
        // The check hands back the newest restart page; clean means no client is still logging.
        RESTART_PAGE_HEADER* restart = nullptr;
        clean = ntfs_check_logfile(data, &restart) && ntfs_is_logfile_clean(data, restart);
        std::free(restart);
        ntfs_attr_close(data);
    } else {
        setError();
    }
    if (log)
        ntfs_inode_close(log);
    return clean;
}

std::shared_ptr<NtfsFilesys::OpenData> NtfsFilesys::openData(const std::string& path)
{
    // The file's record number from its directory, so that a file open already is not opened
    // again; looked up in the index itself (the name cache keeps misses after a create).
    const auto [parentPath, name] = splitParent(path);
    const UnicodeName unicode(name);
    ntfs_inode* parent = ntfs_pathname_to_inode(mount_->volume, nullptr, parentPath.c_str());
    const u64 reference =
        parent && unicode.length > 0 ? ntfs_inode_lookup_by_name(parent, unicode.text, unicode.length) : u64(-1);
    const int lookupError = errno;
    if (parent)
        ntfs_inode_close(parent);
    if (reference == u64(-1)) {
        errno = lookupError;
        setError();
        return nullptr;
    }
    if (auto open = openData_[MREF(reference)].lock())
        return open;
    ntfs_inode* inode = ntfs_inode_open(mount_->volume, MREF(reference));
    if (!inode) {
        setError();
        return nullptr;
    }
    if (inode->mrec->flags & MFT_RECORD_IS_DIRECTORY) {
        ntfs_inode_close(inode);
        Error::set(Error::IsDirectory);
        return nullptr;
    }
    ntfs_attr* data = ntfs_attr_open(inode, AT_DATA, AT_UNNAMED, 0);
    if (!data) {
        setError();
        ntfs_inode_close(inode);
        return nullptr;
    }
    auto open = std::make_shared<OpenData>(inode, data);
    openData_[MREF(reference)] = open;
    return open;
}

Ref<File> NtfsFilesys::openExisting(const std::string& path, Access)
{
    auto open = openData(path);
    return open ? makeRef<NtfsFile>(Ref<NtfsFilesys>(this), std::move(open)) : Ref<File>();
}

Ref<Directory> NtfsFilesys::openDirectory(const std::string& path)
{
    ntfs_inode* inode = ntfs_pathname_to_inode(mount_->volume, nullptr, path.c_str());
    if (!inode) {
        setError();
        return {};
    }
    Listing listing{mount_->volume, {}, [this](std::uint64_t record) -> std::optional<std::uint64_t> {
                        const auto found = openData_.find(record);
                        const auto open = found == openData_.end() ? nullptr : found->second.lock();
                        if (!open)
                            return std::nullopt;
                        return std::uint64_t(open->data->data_size);
                    }};
    s64 position = 0;
    // With case folding on, the library lists names folded to lower case; list them as stored.
    ntfschar* folding = mount_->volume->locase;
    mount_->volume->locase = nullptr;
    const int result = ntfs_readdir(inode, &position, &listing, listName);
    mount_->volume->locase = folding;
    ntfs_inode_close(inode);
    if (result != 0) {
        setError();
        return {};
    }
    return makeRef<ListedDirectory>(std::move(listing.entries));
}

bool NtfsFilesys::create(const std::string& path, bool directory)
{
    const auto [parentPath, name] = splitParent(path);
    const UnicodeName unicode(name);
    ntfs_inode* parent = ntfs_pathname_to_inode(mount_->volume, nullptr, parentPath.c_str());
    if (!parent || unicode.length <= 0) {
        setError();
        if (parent)
            ntfs_inode_close(parent);
        return false;
    }
    ntfs_inode* inode =
        ntfs_create(parent, const_cpu_to_le32(0), unicode.text, u8(unicode.length), directory ? S_IFDIR : S_IFREG);
    if (!inode)
        setError();
    else
        ntfs_inode_close_in_dir(inode, parent);
    ntfs_inode_close(parent);
    return inode != nullptr;
}

bool NtfsFilesys::removeExisting(const std::string& path)
{
    const auto [parentPath, name] = splitParent(path);
    const UnicodeName unicode(name);
    ntfs_inode* inode = ntfs_pathname_to_inode(mount_->volume, nullptr, path.c_str());
    ntfs_inode* parent = inode ? ntfs_pathname_to_inode(mount_->volume, nullptr, parentPath.c_str()) : nullptr;
    if (!inode || !parent || unicode.length <= 0) {
        setError();
        if (inode)
            ntfs_inode_close(inode);
        if (parent)
            ntfs_inode_close(parent);
        return false;
    }
    if (inode->mrec->flags & MFT_RECORD_IS_DIRECTORY) {
        ntfs_inode_close(inode);
        ntfs_inode_close(parent);
        Error::set(Error::IsDirectory);
        return false;
    }
    // ntfs_delete closes both inodes.
    if (ntfs_delete(mount_->volume, path.c_str(), inode, parent, unicode.text, u8(unicode.length)) != 0) {
        setError();
        return false;
    }
    return true;
}

bool NtfsFilesys::writeOut()
{
    return ntfs_device_sync(mount_->device) == 0;
}

} // namespace Platform
