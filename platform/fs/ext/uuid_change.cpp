#include "platform/fs/ext/uuid_change.h"
#include "platform/fs/ext/layout.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/fs/ext/io_manager.h"
#include "platform/storage/byte_io.h"
#include "platform/storage/cached_storage.h"
#include "platform/storage/staging_storage.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <vector>

namespace Platform {

namespace {

// Inode tables are read and written in runs of at most this many bytes.
constexpr std::size_t kTableChunk = 1 << 20;

std::string refusal(ext2_super_block& super)
{
    if (ext2fs_has_feature_journal_needs_recovery(&super))
        return "the journal needs recovery; run e2fsck first";
    if (super.s_state & EXT2_ERROR_FS)
        return "errors are recorded in the file system; run e2fsck first";
    if (!(super.s_state & EXT2_VALID_FS))
        return "the file system was not cleanly unmounted; run e2fsck first";
    return {};
}

std::string damaged(const std::string& what)
{
    return what + " does not match its checksum: the file system is damaged; run e2fsck -f first";
}

// Group descriptors are checked against the UUID they were written with before anything is
// derived from them: a damaged primary must not be copied into the backups.
std::string verifyGroupDescriptors(ext2_filsys fs)
{
    for (dgrp_t group = 0; group < fs->group_desc_count; ++group)
        if (!ext2fs_group_desc_csum_verify(fs, group))
            return damaged("the descriptor of block group " + std::to_string(group));
    return {};
}

bool allZero(const char* bytes, std::size_t length)
{
    return std::all_of(bytes, bytes + length, [](char c) { return c == 0; });
}

// Depth of an inode's extent tree; 0 when the whole tree lives in the inode.
unsigned extentDepth(const ext2_inode_large& inode)
{
    const auto* header = reinterpret_cast<const ext3_extent_header*>(inode.i_block);
    return ext2fs_le16_to_cpu(header->eh_depth);
}

// Rewrites every checksum that depends on the UUID, for a metadata_csum file system without a
// seed. Each old checksum is verified under the old seed right before it is recomputed under
// the new one, so metadata that is already damaged is refused rather than blessed with a valid
// checksum. Everything goes through the staging layer: a refusal leaves the disk untouched.
class ChecksumRewrite {
public:
    // REQUIRES: fs->csum_seed still derived from the old UUID, bitmaps not yet read.
    explicit ChecksumRewrite(ext2_filsys fs) : fs_(fs), oldSeed_(fs->csum_seed) {}

    // Reads and verifies the bitmaps, then switches fs to the new UUID.
    bool begin(std::span<const std::uint8_t> id)
    {
        if (const errcode_t code = ext2fs_read_bitmaps(fs_))
            return code == EXT2_ET_BLOCK_BITMAP_CSUM_INVALID || code == EXT2_ET_INODE_BITMAP_CSUM_INVALID
                       ? fail(Error::Corrupt, damaged("a block or inode bitmap"))
                       : failed(code, "reading the bitmaps");
        // Checksums are verified here, one by one, under the seed they were made with.
        fs_->flags |= EXT2_FLAG_IGNORE_CSUM_ERRORS;
        std::memcpy(fs_->super->s_uuid, id.data(), 16);
        ext2fs_init_csum_seed(fs_);
        newSeed_ = fs_->csum_seed;
        return true;
    }

    bool run()
    {
        std::vector<char> table(std::max<std::size_t>(fs_->blocksize, kTableChunk / fs_->blocksize * fs_->blocksize));
        for (dgrp_t group = 0; group < fs_->group_desc_count; ++group)
            if (!rewriteGroup(group, table))
                return false;
        if (!rewriteXattrBlocks() || !rewriteOrphanFile())
            return false;
        ext2fs_mark_ib_dirty(fs_);
        ext2fs_mark_bb_dirty(fs_);
        if (const errcode_t code = ext2fs_write_bitmaps(fs_))
            return failed(code, "writing the bitmaps");
        if (ext2fs_has_feature_mmp(fs_->super))
            if (const errcode_t code = ext2fs_mmp_update2(fs_, 1))
                return failed(code, "updating the multi-mount protection block");
        return true;
    }

    // Puts what failed into the platform's error slot.
    void report() const { Error::set(code_, error_); }

private:
    void underOldSeed() { fs_->csum_seed = oldSeed_; }
    void underNewSeed() { fs_->csum_seed = newSeed_; }

    bool fail(std::uint32_t code, std::string text)
    {
        underNewSeed();
        code_ = code;
        error_ = std::move(text);
        return false;
    }

    bool failed(errcode_t code, const std::string& what)
    {
        return fail(fromExtError(code), what + " failed: " + extErrorText(code));
    }

    // One group's inode table, run by run: every inode checksum recomputed with the new seed and
    // the run written back where it changed, then the metadata of the run's inodes in use (which
    // reads those inodes and may write them, so their own checksums must already be new).
    bool rewriteGroup(dgrp_t group, std::vector<char>& buffer)
    {
        if (ext2fs_has_group_desc_csum(fs_) && ext2fs_bg_flags_test(fs_, group, EXT2_BG_INODE_UNINIT))
            return true;
        const unsigned inodeSize = EXT2_INODE_SIZE(fs_->super);
        std::uint32_t inodes = fs_->super->s_inodes_per_group;
        if (ext2fs_has_group_desc_csum(fs_))
            inodes -= std::min<std::uint32_t>(inodes, ext2fs_bg_itable_unused(fs_, group));
        const blk64_t table = ext2fs_inode_table_loc(fs_, group);
        const std::uint32_t perBlock = fs_->blocksize / inodeSize;
        const blk64_t blocks = (inodes + perBlock - 1) / perBlock;
        const blk64_t chunkBlocks = buffer.size() / fs_->blocksize;

        for (blk64_t first = 0; first < blocks; first += chunkBlocks) {
            const blk64_t count = std::min(chunkBlocks, blocks - first);
            const ext2_ino_t base = group * fs_->super->s_inodes_per_group + std::uint32_t(first) * perBlock + 1;
            const std::uint32_t inChunk =
                std::min<std::uint32_t>(std::uint32_t(count) * perBlock, inodes - std::uint32_t(first) * perBlock);
            if (const errcode_t code = io_channel_read_blk64(fs_->io, table + first, int(count), buffer.data()))
                return failed(code, "reading inode table of group " + std::to_string(group));
            for (std::uint32_t i = 0; i < inChunk; ++i)
                if (!verifyInode(base + i, buffer.data() + std::size_t(i) * inodeSize))
                    return false;
            bool changed = false;
            for (std::uint32_t i = 0; i < inChunk; ++i)
                setInodeChecksum(base + i, buffer.data() + std::size_t(i) * inodeSize, changed);
            if (changed) {
                if (const errcode_t code = io_channel_write_blk64(fs_->io, table + first, int(count), buffer.data()))
                    return failed(code, "writing inode table of group " + std::to_string(group));
                // libext2fs keeps inodes and the last table block it read: those carry the old
                // checksums, which no longer verify.
                ext2fs_flush_icache(fs_);
            }
            for (std::uint32_t i = 0; i < inChunk; ++i) {
                if (!ext2fs_test_inode_bitmap2(fs_->inode_map, base + i))
                    continue;
                ext2_inode_large inode{};
                std::memcpy(&inode, buffer.data() + std::size_t(i) * inodeSize,
                            std::min<std::size_t>(inodeSize, sizeof inode));
                if (!rewriteInodeMetadata(base + i, inode))
                    return false;
            }
        }
        return true;
    }

    // An inode in use, and the blocks of its extent tree, must verify under the old seed while
    // its table still holds the old checksums (the extent checksums read the inode back). Free
    // inodes carry nothing to protect.
    bool verifyInode(ext2_ino_t ino, char* raw)
    {
        if (!ext2fs_test_inode_bitmap2(fs_->inode_map, ino))
            return true;
        auto* inode = reinterpret_cast<ext2_inode_large*>(raw);
        underOldSeed();
        const bool valid = ext2fs_inode_csum_verify(fs_, ino, inode);
        underNewSeed();
        if (!valid)
            return fail(Error::Corrupt, damaged("inode " + std::to_string(ino)));
        if ((inode->i_flags & EXT4_EXTENTS_FL) && !(inode->i_flags & EXT4_INLINE_DATA_FL) && extentDepth(*inode) > 0)
            return verifyExtentTree(ino, reinterpret_cast<ext2_inode*>(inode));
        return true;
    }

    void setInodeChecksum(ext2_ino_t ino, char* raw, bool& changed)
    {
        const unsigned inodeSize = EXT2_INODE_SIZE(fs_->super);
        if (allZero(raw, inodeSize))
            return;
        before_.assign(raw, raw + inodeSize);
        ext2fs_inode_csum_set(fs_, ino, reinterpret_cast<ext2_inode_large*>(raw));
        changed |= std::memcmp(before_.data(), raw, inodeSize) != 0;
    }

    // The metadata that hangs off one inode in use: extent blocks, directory blocks and its
    // extended-attribute block (collected, as several inodes may share one).
    bool rewriteInodeMetadata(ext2_ino_t ino, ext2_inode_large& inode)
    {
        auto* plain = reinterpret_cast<ext2_inode*>(&inode);
        const bool inlineData = inode.i_flags & EXT4_INLINE_DATA_FL;
        if ((inode.i_flags & EXT4_EXTENTS_FL) && !inlineData && extentDepth(inode) > 0) {
            if (const errcode_t code = ext2fs_fix_extents_checksums(fs_, ino, plain))
                return failed(code, "rewriting the extent tree of inode " + std::to_string(ino));
        }
        if (LINUX_S_ISDIR(inode.i_mode) && !inlineData && ext2fs_inode_has_valid_blocks2(fs_, plain)) {
            directory_ = ino;
            const errcode_t code =
                ext2fs_block_iterate3(fs_, ino, BLOCK_FLAG_READ_ONLY, nullptr, rewriteDirectoryBlock, this);
            if (!error_.empty())
                return false;
            if (code)
                return failed(code, "walking directory inode " + std::to_string(ino));
        }
        if (const blk64_t xattr = ext2fs_file_acl_block(fs_, plain))
            xattrBlocks_.insert(xattr);
        return true;
    }

    // Walks the tree's blocks under the old seed; reading a block checks its checksum.
    // REQUIRES: the inode table on the staging layer still holds the old inode.
    bool verifyExtentTree(ext2_ino_t ino, ext2_inode* inode)
    {
        ext2_extent_handle_t handle = nullptr;
        if (const errcode_t code = ext2fs_extent_open2(fs_, ino, inode, &handle))
            return failed(code, "opening the extent tree of inode " + std::to_string(ino));
        underOldSeed();
        fs_->flags &= ~EXT2_FLAG_IGNORE_CSUM_ERRORS;
        ext2fs_extent extent{};
        errcode_t code = ext2fs_extent_get(handle, EXT2_EXTENT_ROOT, &extent);
        while (!code) {
            if (extent.e_flags & EXT2_EXTENT_FLAGS_LEAF)
                if ((code = ext2fs_extent_get(handle, EXT2_EXTENT_LAST_SIB, &extent)))
                    break;
            code = ext2fs_extent_get(handle, EXT2_EXTENT_NEXT, &extent);
        }
        fs_->flags |= EXT2_FLAG_IGNORE_CSUM_ERRORS;
        underNewSeed();
        ext2fs_extent_free(handle);
        if (code == EXT2_ET_EXTENT_NO_NEXT)
            return true;
        if (code == EXT2_ET_EXTENT_CSUM_INVALID)
            return fail(Error::Corrupt, damaged("an extent block of inode " + std::to_string(ino)));
        return failed(code, "reading the extent tree of inode " + std::to_string(ino));
    }

    static int rewriteDirectoryBlock(ext2_filsys, blk64_t* block, e2_blkcnt_t count, blk64_t, int, void* data)
    {
        auto* self = static_cast<ChecksumRewrite*>(data);
        if (count < 0)
            return 0; // index blocks of the inode itself, not directory blocks
        return self->rewriteDirectoryBlock(*block) ? 0 : BLOCK_ABORT;
    }

    bool rewriteDirectoryBlock(blk64_t block)
    {
        block_.resize(fs_->blocksize);
        const std::string what = "directory block " + std::to_string(block) + " of inode " + std::to_string(directory_);
        underOldSeed();
        if (const errcode_t code = ext2fs_read_dir_block4(fs_, block, block_.data(), 0, directory_))
            return failed(code, "reading " + what);
        const bool valid =
            ext2fs_dir_block_csum_verify(fs_, directory_, reinterpret_cast<ext2_dir_entry*>(block_.data()));
        underNewSeed();
        if (!valid)
            return fail(Error::Corrupt, damaged(what));
        if (const errcode_t code = ext2fs_write_dir_block4(fs_, block, block_.data(), 0, directory_))
            return failed(code, "writing " + what);
        return true;
    }

    bool rewriteXattrBlocks()
    {
        block_.resize(fs_->blocksize);
        for (blk64_t block : xattrBlocks_) {
            const std::string what = "extended-attribute block " + std::to_string(block);
            underOldSeed();
            if (const errcode_t code = ext2fs_read_ext_attr3(fs_, block, block_.data(), 0))
                return failed(code, "reading " + what);
            const bool valid = ext2fs_ext_attr_block_csum_verify(
                fs_, 0, block, reinterpret_cast<ext2_ext_attr_header*>(block_.data()));
            underNewSeed();
            if (!valid)
                return fail(Error::Corrupt, damaged(what));
            if (const errcode_t code = ext2fs_write_ext_attr3(fs_, block, block_.data(), 0))
                return failed(code, "writing " + what);
        }
        return true;
    }

    static int rewriteOrphanBlock(ext2_filsys, blk64_t* block, e2_blkcnt_t count, blk64_t, int, void* data)
    {
        auto* self = static_cast<ChecksumRewrite*>(data);
        if (count < 0)
            return 0;
        return self->rewriteOrphanBlock(*block) ? 0 : BLOCK_ABORT;
    }

    bool rewriteOrphanBlock(blk64_t block)
    {
        const ext2_ino_t ino = fs_->super->s_orphan_file_inum;
        const std::string what = "orphan-file block " + std::to_string(block);
        if (const errcode_t code = io_channel_read_blk64(fs_->io, block, 1, block_.data()))
            return failed(code, "reading " + what);
        underOldSeed();
        const bool valid = ext2fs_orphan_file_block_csum_verify(fs_, ino, block, block_.data());
        underNewSeed();
        if (!valid)
            return fail(Error::Corrupt, damaged(what));
        if (const errcode_t code = ext2fs_orphan_file_block_csum_set(fs_, ino, block, block_.data()))
            return failed(code, "checksumming " + what);
        if (const errcode_t code = io_channel_write_blk64(fs_->io, block, 1, block_.data()))
            return failed(code, "writing " + what);
        return true;
    }

    bool rewriteOrphanFile()
    {
        if (!ext2fs_has_feature_orphan_file(fs_->super) || fs_->super->s_orphan_file_inum == 0)
            return true;
        block_.resize(fs_->blocksize);
        const errcode_t code = ext2fs_block_iterate3(fs_, fs_->super->s_orphan_file_inum, BLOCK_FLAG_READ_ONLY, nullptr,
                                                     rewriteOrphanBlock, this);
        if (!error_.empty())
            return false;
        return code ? failed(code, "walking the orphan file") : true;
    }

    ext2_filsys fs_;
    __u32 oldSeed_;
    __u32 newSeed_ = 0;
    std::uint32_t code_ = Error::None;
    std::string error_; // set once a callback failed: the walk stops
    std::set<blk64_t> xattrBlocks_;
    std::vector<char> before_;
    std::vector<char> block_;
    ext2_ino_t directory_ = 0;
};

} // namespace

bool changeExtUuid(const Ref<Interfaces::Storage>& storage, std::span<const std::uint8_t> id)
{
    const auto refuse = [](std::uint32_t code, std::string text) {
        Error::set(code, std::move(text));
        return false;
    };
    // The whole change is worked out on a staging layer and reaches the disk only when complete.
    // Under a cache, the change already stays in memory until the step's write-back, and the undo
    // layer of the volume takes a failed one back: a staging layer would hold the metadata again.
    // The group descriptors are read and checked even where only the superblocks change: a file
    // system whose descriptors are damaged is not touched at all.
    const auto staging = writesWaitForWriteBack(*storage) ? Ref<StagingStorage>() : makeRef<StagingStorage>(storage);
    ExtFileSystem fs(staging ? Ref<Interfaces::Storage>(staging) : storage, EXT2_FLAG_RW);
    if (!fs) {
        return fs.openError() == EXT2_ET_SB_CSUM_INVALID
                   ? refuse(Error::Corrupt, damaged("the superblock"))
                   : refuse(fromExtError(fs.openError()), "cannot open the file system: " + fs.openProblem());
    }
    ext2_filsys handle = fs.get();
    if (const std::string why = refusal(*handle->super); !why.empty())
        return refuse(Error::DirtyLog, why);
    const bool rewriteAll =
        ext2fs_has_feature_metadata_csum(handle->super) && !ext2fs_has_feature_csum_seed(handle->super);
    const bool descriptorsChange =
        rewriteAll || (ext2fs_has_group_desc_csum(handle) && !ext2fs_has_feature_metadata_csum(handle->super));
    if (descriptorsChange)
        if (const std::string why = verifyGroupDescriptors(handle); !why.empty())
            return refuse(Error::Corrupt, why);

    // Backups too: libext2fs would otherwise write the primary superblock only.
    handle->flags &= ~EXT2_FLAG_MASTER_SB_ONLY;
    if (rewriteAll) {
        ChecksumRewrite rewrite(handle);
        if (!rewrite.begin(id) || !rewrite.run()) {
            rewrite.report();
            return false;
        }
    } else {
        std::memcpy(handle->super->s_uuid, id.data(), 16);
    }
    if (descriptorsChange) {
        handle->flags &= ~EXT2_FLAG_SUPER_ONLY;
        for (dgrp_t group = 0; group < handle->group_desc_count; ++group)
            ext2fs_group_desc_csum_set(handle, group);
    } else {
        handle->flags |= EXT2_FLAG_SUPER_ONLY; // with a checksum seed only the superblocks change
    }
    ext2fs_mark_super_dirty(handle);
    if (const errcode_t code = fs.close()) {
        return refuse(fromExtError(code), "writing the superblocks failed: " + extErrorText(code));
    }
    // The primary superblock last: tools trust it first, so it names the new UUID only once the
    // checksums that depend on it are on disk.
    const std::uint64_t sector = storage->elementSize();
    constexpr std::uint64_t superblockEnd = Ext::Layout::kSuperblockOffset + Ext::Layout::kSuperblockSize;
    if (staging && !staging->commit(Ext::Layout::kSuperblockOffset / sector, (superblockEnd + sector - 1) / sector)) {
        return refuse(Error::Io, "writing the changed metadata failed");
    }
    return true;
}

} // namespace Platform
