#include "platform/fs/ext/filesys.h"
#include "platform/fs/listed_directory.h"

#include "platform/core/error.h"
#include "platform/fs/area_collector.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

namespace Platform {

namespace {

class ExtFile : public File {
public:
    ExtFile(Ref<ExtFilesys> owner, ext2_file_t file) : owner_(std::move(owner)), file_(file) {}
    ~ExtFile() override { ext2fs_file_close(file_); }

    std::uint64_t size() override
    {
        __u64 size = 0;
        return ext2fs_file_get_lsize(file_, &size) == 0 ? size : 0;
    }
    bool seek(std::uint64_t position) override
    {
        return ext2fs_file_llseek(file_, position, EXT2_SEEK_SET, nullptr) == 0;
    }
    std::uint64_t read(void* buffer, std::uint64_t length) override
    {
        unsigned int done = 0;
        if (const errcode_t error =
                ext2fs_file_read(file_, buffer, unsigned(std::min<std::uint64_t>(length, 1u << 30)), &done))
            setExtError(error, "ext: ");
        return done;
    }
    std::uint64_t write(const void* buffer, std::uint64_t length) override
    {
        unsigned int done = 0;
        if (const errcode_t error =
                ext2fs_file_write(file_, buffer, unsigned(std::min<std::uint64_t>(length, 1u << 30)), &done))
            setExtError(error, "ext: ");
        return done;
    }
    std::uint64_t resize(std::uint64_t newSize) override
    {
        if (const errcode_t error = ext2fs_file_set_size2(file_, newSize))
            setExtError(error, "ext: ");
        return size();
    }
    bool flush() override { return ext2fs_file_flush(file_) == 0; }
    std::optional<std::vector<Area>> allocation() override;

private:
    Ref<ExtFilesys> owner_; // keeps the file system open while the file is
    ext2_file_t file_;
};

struct BlockWalk {
    AreaCollector areas;
    e2_blkcnt_t next = 0; // the file block expected next; another one means a hole
    bool failed = false;
};

int placeBlock(ext2_filsys fs, blk64_t* block, e2_blkcnt_t fileBlock, blk64_t, int, void* data)
{
    auto* walk = static_cast<BlockWalk*>(data);
    if (fileBlock != walk->next) {
        Error::set(Error::NotSupported, "the file has holes");
        walk->failed = true;
        return BLOCK_ABORT;
    }
    ++walk->next;
    if (!walk->areas.add(*block * fs->blocksize, fs->blocksize)) {
        walk->failed = true;
        return BLOCK_ABORT;
    }
    return walk->areas.complete() ? BLOCK_ABORT : 0;
}

std::optional<std::vector<Area>> ExtFile::allocation()
{
    if (const errcode_t error = ext2fs_file_flush(file_)) { // blocks are placed when the buffer is written
        setExtError(error, "ext: ");
        return std::nullopt;
    }
    const ext2_inode* inode = ext2fs_file_get_inode(file_);
    if (inode->i_flags & EXT4_INLINE_DATA_FL) {
        Error::set(Error::NotSupported, "the file's data is kept inside its inode");
        return std::nullopt;
    }
    ext2_filsys fs = owner_->handle();
    BlockWalk walk{AreaCollector(owner_->sectorSize(), size()), 0, false};
    const errcode_t error = ext2fs_block_iterate3(
        fs, ext2fs_file_get_inode_num(file_), BLOCK_FLAG_DATA_ONLY | BLOCK_FLAG_READ_ONLY, nullptr, placeBlock, &walk);
    if (walk.failed)
        return std::nullopt;
    if (error) {
        setExtError(error, "ext: ");
        return std::nullopt;
    }
    if (!walk.areas.complete()) {
        Error::set(Error::NotSupported, "the file has holes");
        return std::nullopt;
    }
    return walk.areas.take();
}

struct Listing {
    ext2_filsys fs;
    std::vector<DirectoryEntry> entries;
};

int listEntry(ext2_ino_t, int, ext2_dir_entry* dirent, int, int, char*, void* data)
{
    auto* listing = static_cast<Listing*>(data);
    const std::string name(dirent->name, ext2fs_dirent_name_len(dirent));
    if (name == "." || name == "..")
        return 0;
    ext2_inode inode{};
    ext2fs_read_inode(listing->fs, dirent->inode, &inode);
    listing->entries.push_back({name, LINUX_S_ISDIR(inode.i_mode) ? 1u : 0u, EXT2_I_SIZE(&inode)});
    return 0;
}

std::string withoutSlash(const std::string& path)
{
    return path.empty() || path[0] != '/' ? path : path.substr(1);
}

} // namespace

Ref<ExtFilesys> ExtFilesys::open(Ref<Interfaces::Storage> storage, Access access)
{
    auto fs = std::make_unique<ExtFileSystem>(std::move(storage), access == Access::ReadOnly ? 0 : EXT2_FLAG_RW);
    if (!*fs) {
        LogMessage(channel(), LogError) << "The ext file system is refused: " << fs->openProblem();
        setExtError(fs->openError(), "the ext file system is refused: ");
        return {};
    }
    if (access == Access::ReadWrite)
        if (const errcode_t error = ext2fs_read_bitmaps(fs->get())) {
            setExtError(error, "reading the bitmaps failed: ");
            return {};
        }
    return makeRef<ExtFilesys>(std::move(fs), access);
}

ExtFilesys::~ExtFilesys()
{
    if (!readOnly())
        fs_->close();
}

bool ExtFilesys::failWith(errcode_t code)
{
    setExtError(code, "ext: ");
    if (code != EXT2_ET_FILE_NOT_FOUND)
        LogMessage(channel(), LogError) << Error::text();
    return false;
}

ext2_ino_t ExtFilesys::lookup(const std::string& path)
{
    ext2_ino_t ino = 0;
    const std::string relative = withoutSlash(path);
    if (relative.empty())
        return EXT2_ROOT_INO;
    if (const errcode_t error = ext2fs_namei(handle(), EXT2_ROOT_INO, EXT2_ROOT_INO, relative.c_str(), &ino)) {
        failWith(error);
        return 0;
    }
    return ino;
}

ext2_ino_t ExtFilesys::parentOf(const std::string& path, std::string& name)
{
    // Appended rather than "/" + ...: GCC 12 at -O3 warns falsely (-Wrestrict) on that form.
    std::string absolute = "/";
    absolute += withoutSlash(path);
    auto [parent, leaf] = splitParent(absolute);
    name = std::move(leaf);
    return lookup(parent);
}

ext2_ino_t ExtFilesys::newFileInode(ext2_ino_t parent, const std::string& name)
{
    ext2_filsys fs = handle();
    ext2_ino_t ino = 0;
    if (const errcode_t error = ext2fs_new_inode(fs, parent, LINUX_S_IFREG | 0644, nullptr, &ino)) {
        failWith(error);
        return 0;
    }
    errcode_t error = ext2fs_link(fs, parent, name.c_str(), ino, EXT2_FT_REG_FILE);
    if (error == EXT2_ET_DIR_NO_SPACE && ext2fs_expand_dir(fs, parent) == 0)
        error = ext2fs_link(fs, parent, name.c_str(), ino, EXT2_FT_REG_FILE);
    if (error) {
        failWith(error);
        return 0;
    }
    ext2fs_inode_alloc_stats2(fs, ino, +1, 0);
    ext2_inode inode{};
    inode.i_mode = LINUX_S_IFREG | 0644;
    inode.i_links_count = 1;
    inode.i_atime = inode.i_ctime = inode.i_mtime = std::uint32_t(std::time(nullptr));
    if (ext2fs_has_feature_extents(fs->super)) {
        inode.i_flags |= EXT4_EXTENTS_FL;
        ext2_extent_handle_t extents = nullptr;
        if (ext2fs_extent_open2(fs, ino, &inode, &extents) == 0)
            ext2fs_extent_free(extents); // lays the empty extent header into the inode
    }
    if (ext2fs_write_new_inode(fs, ino, &inode) != 0) {
        failWith(EIO);
        return 0;
    }
    return ino;
}

Ref<File> ExtFilesys::openExisting(const std::string& path, Access access)
{
    const ext2_ino_t ino = lookup(path);
    if (ino == 0)
        return {};
    ext2_inode inode{};
    if (const errcode_t error = ext2fs_read_inode(handle(), ino, &inode)) {
        failWith(error);
        return {};
    }
    if (LINUX_S_ISDIR(inode.i_mode)) {
        Error::set(Error::IsDirectory);
        return {};
    }
    ext2_file_t file = nullptr;
    const int mode = access == Access::ReadWrite ? EXT2_FILE_WRITE : 0;
    if (const errcode_t error = ext2fs_file_open2(handle(), ino, nullptr, mode, &file)) {
        failWith(error);
        return {};
    }
    return makeRef<ExtFile>(Ref<ExtFilesys>(this), file);
}

bool ExtFilesys::createEmptyFile(const std::string& path)
{
    std::string name;
    const ext2_ino_t parent = parentOf(path, name);
    return parent != 0 && !name.empty() && newFileInode(parent, name) != 0;
}

Ref<Directory> ExtFilesys::openDirectory(const std::string& path)
{
    const ext2_ino_t ino = lookup(path);
    if (ino == 0)
        return {};
    Listing listing{handle(), {}};
    if (const errcode_t error = ext2fs_dir_iterate2(handle(), ino, 0, nullptr, listEntry, &listing)) {
        failWith(error);
        return {};
    }
    return makeRef<ListedDirectory>(std::move(listing.entries));
}

bool ExtFilesys::makeDirectory(const std::string& path)
{
    std::string name;
    const ext2_ino_t parent = parentOf(path, name);
    if (parent == 0)
        return false;
    errcode_t error = ext2fs_mkdir(handle(), parent, 0, name.c_str());
    if (error == EXT2_ET_DIR_NO_SPACE && ext2fs_expand_dir(handle(), parent) == 0)
        error = ext2fs_mkdir(handle(), parent, 0, name.c_str());
    return error ? failWith(error) : true;
}

bool ExtFilesys::removeExisting(const std::string& path)
{
    std::string name;
    const ext2_ino_t parent = parentOf(path, name);
    const ext2_ino_t ino = parent ? lookup(path) : 0;
    if (ino == 0)
        return false;
    ext2_filsys fs = handle();
    ext2_inode inode{};
    if (errcode_t error = ext2fs_read_inode(fs, ino, &inode))
        return failWith(error);
    if (LINUX_S_ISDIR(inode.i_mode))
        return failWith(EISDIR);
    if (errcode_t error = ext2fs_unlink(fs, parent, name.c_str(), ino, 0))
        return failWith(error);
    if (inode.i_links_count > 0)
        --inode.i_links_count;
    if (inode.i_links_count == 0) {
        if (ext2fs_inode_has_valid_blocks2(fs, &inode))
            ext2fs_punch(fs, ino, &inode, nullptr, 0, ~0ULL);
        inode.i_dtime = std::uint32_t(std::time(nullptr));
        ext2fs_inode_alloc_stats2(fs, ino, -1, 0);
    }
    if (errcode_t error = ext2fs_write_inode(fs, ino, &inode))
        return failWith(error);
    return true;
}

// Only what changed: a flush of an unchanged file system would still rewrite every superblock and
// group descriptor with a new write time, so a file rewritten in place costs its own blocks only.
bool ExtFilesys::writeOut()
{
    ext2_filsys fs = handle();
    if ((fs->flags & (EXT2_FLAG_DIRTY | EXT2_FLAG_IB_DIRTY | EXT2_FLAG_BB_DIRTY)) == 0)
        return true;
    return ext2fs_flush(fs) == 0;
}

} // namespace Platform
