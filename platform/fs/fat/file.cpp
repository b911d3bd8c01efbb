#include "platform/fs/fat/file.h"

#include "platform/core/error.h"
#include "platform/storage/byte_io.h"

#include <algorithm>

namespace Platform::Fat {

namespace {
constexpr std::uint64_t kMaxFileSize = 0xFFFFFFFF; // the entry's size field
}

std::optional<std::vector<std::uint32_t>> FatFile::chainFor(std::uint64_t bytes, bool zeroNew)
{
    auto clusters = table_.chain(node_.firstCluster);
    if (!clusters)
        return std::nullopt;
    const std::uint64_t clusterBytes = table_.boot().clusterBytes();
    const std::uint64_t needed = (bytes + clusterBytes - 1) / clusterBytes;
    while (clusters->size() < needed) {
        const auto cluster = table_.allocate();
        if (!cluster || (zeroNew && !table_.zeroCluster(*cluster)))
            return std::nullopt;
        if (clusters->empty())
            node_.firstCluster = *cluster;
        else
            table_.set(clusters->back(), *cluster);
        clusters->push_back(*cluster);
        dirty_ = true;
    }
    return clusters;
}

template <typename Transfer>
std::uint64_t FatFile::transfer(const std::vector<std::uint32_t>& clusters, std::uint64_t length, Transfer move)
{
    const std::uint64_t clusterBytes = table_.boot().clusterBytes();
    std::uint64_t done = 0;
    while (done < length) {
        const std::uint64_t index = position_ / clusterBytes, within = position_ % clusterBytes;
        if (index >= clusters.size()) {
            Error::set(Error::Corrupt, "the cluster chain is shorter than the file's size");
            break;
        }
        // Extend the run while the following clusters lie right behind each other.
        std::uint64_t last = index;
        std::uint64_t span = clusterBytes - within;
        while (span < length - done && last + 1 < clusters.size() && clusters[last + 1] == clusters[last] + 1) {
            ++last;
            span += clusterBytes;
        }
        const std::uint64_t chunk = std::min<std::uint64_t>(length - done, span);
        if (!move(table_.clusterOffset(clusters[index]) + within, done, chunk))
            break;
        done += chunk;
        position_ += chunk;
    }
    return done;
}

std::uint64_t FatFile::read(void* buffer, std::uint64_t length)
{
    if (position_ >= node_.size)
        return 0;
    length = std::min<std::uint64_t>(length, node_.size - position_);
    const auto clusters = table_.chain(node_.firstCluster);
    if (!clusters)
        return 0;
    auto* out = static_cast<std::uint8_t*>(buffer);
    return transfer(*clusters, length, [&](std::uint64_t offset, std::uint64_t at, std::uint64_t count) {
        return readBytes(table_.storage(), offset, {out + at, count});
    });
}

std::uint64_t FatFile::write(const void* buffer, std::uint64_t length)
{
    if (!writable_ || position_ + length > kMaxFileSize) {
        Error::set(writable_ ? Error::TooLarge : Error::ReadOnly);
        return 0;
    }
    // A gap behind the end reads as zeros; the clusters written here need no zeroing first.
    if (position_ > node_.size && resize(position_) != position_)
        return 0;
    const auto clusters = chainFor(position_ + length, false);
    if (!clusters)
        return 0;
    const auto* in = static_cast<const std::uint8_t*>(buffer);
    const std::uint64_t done =
        transfer(*clusters, length, [&](std::uint64_t offset, std::uint64_t at, std::uint64_t count) {
            return writeBytes(table_.storage(), offset, {in + at, count});
        });
    if (position_ > node_.size) {
        node_.size = std::uint32_t(position_);
        dirty_ = true;
    }
    return done;
}

// New clusters come zeroed; the tail of the last old cluster is zeroed here.
bool FatFile::grow(std::uint64_t newSize)
{
    const auto clusters = chainFor(newSize, true);
    if (!clusters)
        return false;
    const std::uint64_t clusterBytes = table_.boot().clusterBytes();
    const std::uint64_t tailEnd =
        std::min<std::uint64_t>(newSize, (node_.size + clusterBytes - 1) / clusterBytes * clusterBytes);
    if (tailEnd <= node_.size)
        return true;
    const std::vector<std::uint8_t> zeros(std::size_t(tailEnd - node_.size), 0);
    const std::uint32_t cluster = (*clusters)[node_.size / clusterBytes];
    return writeBytes(table_.storage(), table_.clusterOffset(cluster) + node_.size % clusterBytes, zeros);
}

bool FatFile::shrink(std::uint64_t newSize)
{
    const auto clusters = table_.chain(node_.firstCluster);
    if (!clusters)
        return false;
    const std::uint64_t clusterBytes = table_.boot().clusterBytes();
    const std::size_t keep = std::size_t((newSize + clusterBytes - 1) / clusterBytes);
    if (keep < clusters->size()) {
        table_.release({clusters->begin() + std::ptrdiff_t(keep), clusters->end()});
        if (keep == 0)
            node_.firstCluster = 0;
        else
            table_.set((*clusters)[keep - 1], table_.endMark());
    }
    return true;
}

std::uint64_t FatFile::resize(std::uint64_t newSize)
{
    if (!writable_ || newSize > kMaxFileSize)
        return node_.size;
    if (newSize > node_.size ? !grow(newSize) : newSize < node_.size && !shrink(newSize))
        return node_.size;
    node_.size = std::uint32_t(newSize);
    dirty_ = true;
    return node_.size;
}

bool FatFile::flush()
{
    if (!dirty_)
        return true;
    dirty_ = false;
    return updateEntry(table_, node_) && table_.write();
}

} // namespace Platform::Fat
