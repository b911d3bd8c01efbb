#pragma once
// A file on a FAT volume: reads and writes in runs of consecutive clusters, a chain that grows
// (new clusters zeroed unless the write fills them) and shrinks, and its directory entry and the
// FAT copies brought up to date at each flush.

#include "platform/fs/fat/directory.h"
#include "platform/fs/filesys.h"

namespace Platform::Fat {

class FatFile : public File {
public:
    // owner keeps the file system, and with it table, alive while the file is open.
    FatFile(Ref<Object> owner, AllocationTable& table, Node node, bool writable)
        : owner_(std::move(owner)), table_(table), node_(std::move(node)), writable_(writable)
    {
    }
    ~FatFile() override { flush(); }

    std::uint64_t size() override { return node_.size; }
    bool seek(std::uint64_t position) override
    {
        position_ = position;
        return true;
    }
    std::uint64_t read(void* buffer, std::uint64_t length) override;
    std::uint64_t write(const void* buffer, std::uint64_t length) override;
    std::uint64_t resize(std::uint64_t size) override;
    bool flush() override;
    std::optional<std::vector<Area>> allocation() override;

private:
    // The file's clusters, read from the table once per open file and kept up to date as it
    // grows and shrinks: a copy in small blocks would otherwise walk the chain at every block.
    // Null on a damaged chain.
    const std::vector<std::uint32_t>* clusters();
    // The chain, extended to hold bytes; new clusters are zeroed unless the caller fills them.
    // Null on a damaged chain.
    const std::vector<std::uint32_t>* chainFor(std::uint64_t bytes, bool zeroNew);
    // Moves bytes between the buffer and the file at the position, one transfer per run of
    // consecutive clusters.
    template <typename Transfer>
    std::uint64_t transfer(const std::vector<std::uint32_t>& clusters, std::uint64_t length, Transfer move);
    bool grow(std::uint64_t newSize);
    bool shrink(std::uint64_t newSize);

    Ref<Object> owner_;
    AllocationTable& table_;
    Node node_;
    std::optional<std::vector<std::uint32_t>> clusters_;
    bool writable_;
    bool dirty_ = false;
    std::uint64_t position_ = 0;
};

} // namespace Platform::Fat
