#include "platform/fs/fat/file.h"

#include "platform/core/error.h"
#include "platform/fs/area_collector.h"
#include "platform/storage/byte_io.h"

#include <algorithm>

namespace Platform::Fat {

namespace {
constexpr std::uint64_t kMaxFileSize = 0xFFFFFFFF; // the entry's size field
}

const std::vector<std::uint32_t>* FatFile::clusters()
{
    if (!clusters_)
        clusters_ = table_.chain(node_.firstCluster);
    return clusters_ ? &*clusters_ : nullptr;
}

const std::vector<std::uint32_t>* FatFile::chainFor(std::uint64_t bytes, bool zeroNew)
{
    if (!clusters())
        return nullptr;
    auto& chain = *clusters_;
    const std::uint64_t clusterBytes = table_.boot().clusterBytes();
    const std::uint64_t needed = (bytes + clusterBytes - 1) / clusterBytes;
    while (chain.size() < needed) {
        const auto cluster = table_.allocate();
        if (!cluster || (zeroNew && !table_.zeroCluster(*cluster)))
            return nullptr;
        if (chain.empty())
            node_.firstCluster = *cluster;
        else
            table_.set(chain.back(), *cluster);
        chain.push_back(*cluster);
        dirty_ = true;
    }
    return &chain;
}

std::optional<std::vector<Area>> FatFile::allocation()
{
    const auto* chain = clusters();
    if (!chain)
        return std::nullopt;
    AreaCollector areas(table_.storage().elementSize(), node_.size);
    for (const std::uint32_t cluster : *chain)
        if (!areas.add(table_.clusterOffset(cluster), table_.boot().clusterBytes()))
            return std::nullopt;
    if (!areas.complete()) {
        Error::set(Error::Corrupt, "the cluster chain is shorter than the file's size");
        return std::nullopt;
    }
    return areas.take();
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
    const auto* chain = clusters();
    if (!chain)
        return 0;
    auto* out = static_cast<std::uint8_t*>(buffer);
    return transfer(*chain, length, [&](std::uint64_t offset, std::uint64_t at, std::uint64_t count) {
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
    const auto* chain = chainFor(position_ + length, false);
    if (!chain)
        return 0;
    const auto* in = static_cast<const std::uint8_t*>(buffer);
    const std::uint64_t done =
        transfer(*chain, length, [&](std::uint64_t offset, std::uint64_t at, std::uint64_t count) {
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
    const auto* chain = chainFor(newSize, true);
    if (!chain)
        return false;
    const std::uint64_t clusterBytes = table_.boot().clusterBytes();
    const std::uint64_t tailEnd =
        std::min<std::uint64_t>(newSize, (node_.size + clusterBytes - 1) / clusterBytes * clusterBytes);
    if (tailEnd <= node_.size)
        return true;
    const std::vector<std::uint8_t> zeros(std::size_t(tailEnd - node_.size), 0);
    const std::uint32_t cluster = (*chain)[node_.size / clusterBytes];
    return writeBytes(table_.storage(), table_.clusterOffset(cluster) + node_.size % clusterBytes, zeros);
}

bool FatFile::shrink(std::uint64_t newSize)
{
    if (!clusters())
        return false;
    auto& chain = *clusters_;
    const std::uint64_t clusterBytes = table_.boot().clusterBytes();
    const std::size_t keep = std::size_t((newSize + clusterBytes - 1) / clusterBytes);
    if (keep < chain.size()) {
        table_.release({chain.begin() + std::ptrdiff_t(keep), chain.end()});
        chain.resize(keep);
        if (keep == 0)
            node_.firstCluster = 0;
        else
            table_.set(chain.back(), table_.endMark());
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
