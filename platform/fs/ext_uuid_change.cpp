#include "platform/fs/ext_uuid_change.h"

#include "platform/core/bytes.h"
#include "platform/fs/ext_io_manager.h"
#include "platform/storage/byte_io.h"
#include "platform/storage/staging_storage.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <vector>

namespace Platform {

namespace {

// Inode tables are read and written in runs of at most this many bytes.
constexpr std::size_t kTableChunk = 1 << 20;

std::string refusal(ext2_super_block& super, bool rewritingChecksums)
{
    if (ext2fs_has_feature_journal_needs_recovery(&super))
        return "the journal needs recovery; run e2fsck first";
    if (super.s_state & EXT2_ERROR_FS)
        return "errors are recorded in the file system; run e2fsck first";
    if (!(super.s_state & EXT2_VALID_FS))
        return "the file system was not cleanly unmounted; run e2fsck first";
    if (rewritingChecksums && super.s_lastcheck < super.s_mtime)
        return "the file system was mounted since its last check; run e2fsck -f first";
    return {};
}

// From the superblock alone: with a checksum seed, or with no checksums that involve the UUID,
// a new UUID changes nothing but the superblocks.
bool onlySuperblocksChange(Interfaces::Storage& storage)
{
    constexpr std::size_t kIncompat = 0x60, kRoCompat = 0x64;
    constexpr std::uint32_t kIncompatCsumSeed = 0x2000, kRoCompatGdtCsum = 0x10, kRoCompatMetadataCsum = 0x400;
    const auto super = readBytes(storage, 1024, 1024);
    if (super.empty())
        return false;
    ByteView view(super);
    if (view.u32(kIncompat) & kIncompatCsumSeed)
        return true;
    return !(view.u32(kRoCompat) & (kRoCompatGdtCsum | kRoCompatMetadataCsum));
}

struct DirectoryPass {
    ext2_ino_t ino;
    std::vector<char> buffer;
    errcode_t error = 0;
};

int rewriteDirectoryBlock(ext2_filsys fs, blk64_t* block, e2_blkcnt_t count, blk64_t, int, void* data)
{
    auto* pass = static_cast<DirectoryPass*>(data);
    if (count < 0)
        return 0; // index blocks of the inode itself, not directory blocks
    pass->error = ext2fs_read_dir_block4(fs, *block, pass->buffer.data(), 0, pass->ino);
    if (!pass->error)
        pass->error = ext2fs_write_dir_block4(fs, *block, pass->buffer.data(), 0, pass->ino);
    return pass->error ? BLOCK_ABORT : 0;
}

int rewriteOrphanBlock(ext2_filsys fs, blk64_t* block, e2_blkcnt_t count, blk64_t, int, void* data)
{
    auto* pass = static_cast<DirectoryPass*>(data);
    if (count < 0)
        return 0;
    pass->error = io_channel_read_blk64(fs->io, *block, 1, pass->buffer.data());
    if (!pass->error)
        pass->error = ext2fs_orphan_file_block_csum_set(fs, pass->ino, *block, pass->buffer.data());
    if (!pass->error)
        pass->error = io_channel_write_blk64(fs->io, *block, 1, pass->buffer.data());
    return pass->error ? BLOCK_ABORT : 0;
}

// The metadata that hangs off one inode in use: extent blocks, directory blocks and its
// extended-attribute block (collected, as several inodes may share one).
errcode_t rewriteInodeMetadata(ext2_filsys fs, ext2_ino_t ino, ext2_inode_large& inode, std::set<blk64_t>& xattrBlocks)
{
    auto* plain = reinterpret_cast<ext2_inode*>(&inode);
    const bool inlineData = inode.i_flags & EXT4_INLINE_DATA_FL;
    if ((inode.i_flags & EXT4_EXTENTS_FL) && !inlineData)
        if (const errcode_t error = ext2fs_fix_extents_checksums(fs, ino, plain))
            return error;
    if (LINUX_S_ISDIR(inode.i_mode) && !inlineData && ext2fs_inode_has_valid_blocks2(fs, plain)) {
        DirectoryPass pass{ino, std::vector<char>(fs->blocksize)};
        const errcode_t error =
            ext2fs_block_iterate3(fs, ino, BLOCK_FLAG_READ_ONLY, nullptr, rewriteDirectoryBlock, &pass);
        if (error || pass.error)
            return error ? error : pass.error;
    }
    if (const blk64_t xattr = ext2fs_file_acl_block(fs, plain))
        xattrBlocks.insert(xattr);
    return 0;
}

bool allZero(const char* bytes, std::size_t length)
{
    return std::all_of(bytes, bytes + length, [](char c) { return c == 0; });
}

// One group's inode table, run by run: every inode checksum recomputed with the new seed and
// the run written back where it changed, then the metadata of the run's inodes in use (which
// reads those inodes and may write them, so their own checksums must already be new).
errcode_t rewriteGroup(ext2_filsys fs, dgrp_t group, std::vector<char>& buffer, std::set<blk64_t>& xattrBlocks)
{
    if (ext2fs_has_group_desc_csum(fs) && ext2fs_bg_flags_test(fs, group, EXT2_BG_INODE_UNINIT))
        return 0;
    const unsigned inodeSize = EXT2_INODE_SIZE(fs->super);
    std::uint32_t inodes = fs->super->s_inodes_per_group;
    if (ext2fs_has_group_desc_csum(fs))
        inodes -= std::min<std::uint32_t>(inodes, ext2fs_bg_itable_unused(fs, group));
    const blk64_t table = ext2fs_inode_table_loc(fs, group);
    const std::uint32_t perBlock = fs->blocksize / inodeSize;
    const blk64_t blocks = (inodes + perBlock - 1) / perBlock;
    const blk64_t chunkBlocks = buffer.size() / fs->blocksize;
    std::vector<char> before(inodeSize);

    for (blk64_t first = 0; first < blocks; first += chunkBlocks) {
        const blk64_t count = std::min(chunkBlocks, blocks - first);
        const ext2_ino_t base = group * fs->super->s_inodes_per_group + std::uint32_t(first) * perBlock + 1;
        const std::uint32_t inChunk =
            std::min<std::uint32_t>(std::uint32_t(count) * perBlock, inodes - std::uint32_t(first) * perBlock);
        if (errcode_t error = io_channel_read_blk64(fs->io, table + first, int(count), buffer.data()))
            return error;
        bool changed = false;
        for (std::uint32_t i = 0; i < inChunk; ++i) {
            char* raw = buffer.data() + std::size_t(i) * inodeSize;
            if (allZero(raw, inodeSize))
                continue;
            std::memcpy(before.data(), raw, inodeSize);
            ext2fs_inode_csum_set(fs, base + i, reinterpret_cast<ext2_inode_large*>(raw));
            changed |= std::memcmp(before.data(), raw, inodeSize) != 0;
        }
        if (changed)
            if (errcode_t error = io_channel_write_blk64(fs->io, table + first, int(count), buffer.data()))
                return error;
        for (std::uint32_t i = 0; i < inChunk; ++i) {
            if (!ext2fs_test_inode_bitmap2(fs->inode_map, base + i))
                continue;
            ext2_inode_large inode{};
            std::memcpy(&inode, buffer.data() + std::size_t(i) * inodeSize,
                        std::min<std::size_t>(inodeSize, sizeof inode));
            if (errcode_t error = rewriteInodeMetadata(fs, base + i, inode, xattrBlocks))
                return error;
        }
    }
    return 0;
}

errcode_t rewriteXattrBlocks(ext2_filsys fs, const std::set<blk64_t>& blocks)
{
    std::vector<char> buffer(fs->blocksize);
    for (blk64_t block : blocks) {
        if (errcode_t error = ext2fs_read_ext_attr3(fs, block, buffer.data(), 0))
            return error;
        if (errcode_t error = ext2fs_write_ext_attr3(fs, block, buffer.data(), 0))
            return error;
    }
    return 0;
}

errcode_t rewriteOrphanFile(ext2_filsys fs)
{
    if (!ext2fs_has_feature_orphan_file(fs->super) || fs->super->s_orphan_file_inum == 0)
        return 0;
    DirectoryPass pass{fs->super->s_orphan_file_inum, std::vector<char>(fs->blocksize)};
    const errcode_t error =
        ext2fs_block_iterate3(fs, pass.ino, BLOCK_FLAG_READ_ONLY, nullptr, rewriteOrphanBlock, &pass);
    return error ? error : pass.error;
}

// Every checksum that depends on the UUID, for a metadata_csum file system without a seed.
errcode_t rewriteAllChecksums(ext2_filsys fs)
{
    fs->flags |= EXT2_FLAG_IGNORE_CSUM_ERRORS;
    ext2fs_init_csum_seed(fs);
    if (errcode_t error = ext2fs_read_bitmaps(fs))
        return error;
    std::set<blk64_t> xattrBlocks;
    std::vector<char> buffer(std::max<std::size_t>(fs->blocksize, kTableChunk / fs->blocksize * fs->blocksize));
    for (dgrp_t group = 0; group < fs->group_desc_count; ++group)
        if (errcode_t error = rewriteGroup(fs, group, buffer, xattrBlocks))
            return error;
    if (errcode_t error = rewriteXattrBlocks(fs, xattrBlocks))
        return error;
    if (errcode_t error = rewriteOrphanFile(fs))
        return error;
    ext2fs_mark_ib_dirty(fs);
    ext2fs_mark_bb_dirty(fs);
    if (errcode_t error = ext2fs_write_bitmaps(fs))
        return error;
    if (ext2fs_has_feature_mmp(fs->super))
        return ext2fs_mmp_update2(fs, 1);
    return 0;
}

} // namespace

bool changeExtUuid(const Ref<Interfaces::Storage>& storage, std::span<const std::uint8_t> id, std::string& error)
{
    // The whole change is worked out on a staging layer and reaches the disk only when complete.
    // Where only the superblocks change, the group descriptors are not even read.
    const auto staging = makeRef<StagingStorage>(storage);
    ExtFileSystem fs(staging, EXT2_FLAG_RW | (onlySuperblocksChange(*storage) ? EXT2_FLAG_SUPER_ONLY : 0));
    if (!fs) {
        error = "cannot open the file system: " + extErrorText(fs.openError());
        return false;
    }
    ext2_filsys handle = fs.get();
    const bool rewriteAll =
        ext2fs_has_feature_metadata_csum(handle->super) && !ext2fs_has_feature_csum_seed(handle->super);
    if (error = refusal(*handle->super, rewriteAll); !error.empty())
        return false;

    // Backups too: libext2fs would otherwise write the primary superblock only.
    handle->flags &= ~EXT2_FLAG_MASTER_SB_ONLY;
    std::memcpy(handle->super->s_uuid, id.data(), 16);
    const bool descriptorsChange =
        rewriteAll || (ext2fs_has_group_desc_csum(handle) && !ext2fs_has_feature_metadata_csum(handle->super));
    if (descriptorsChange)
        handle->flags &= ~EXT2_FLAG_SUPER_ONLY;
    else
        handle->flags |= EXT2_FLAG_SUPER_ONLY; // with a checksum seed only the superblocks change
    if (rewriteAll) {
        if (const errcode_t code = rewriteAllChecksums(handle)) {
            error = "rewriting the metadata checksums failed: " + extErrorText(code);
            return false;
        }
    }
    if (descriptorsChange)
        for (dgrp_t group = 0; group < handle->group_desc_count; ++group)
            ext2fs_group_desc_csum_set(handle, group);
    ext2fs_mark_super_dirty(handle);
    if (const errcode_t code = fs.close()) {
        error = "writing the superblocks failed: " + extErrorText(code);
        return false;
    }
    // The primary superblock last: tools trust it first, so it names the new UUID only once the
    // checksums that depend on it are on disk.
    const std::uint64_t sector = storage->elementSize();
    if (!staging->commit(1024 / sector, (2048 + sector - 1) / sector)) {
        error = "writing the changed metadata failed";
        return false;
    }
    return true;
}

} // namespace Platform
