#include "platform/storage/byte_io.h"

#include <algorithm>

namespace Platform {

namespace {

struct Cover {
    std::uint64_t first;
    std::uint64_t count;
    std::size_t skip;
};

bool cover(const Interfaces::Storage& storage, std::uint64_t offset, std::size_t length, Cover& out)
{
    const std::uint64_t sector = storage.elementSize();
    const std::uint64_t total = storage.elementCount() * sector;
    if (sector == 0 || offset > total || length > total - offset)
        return false;
    out.first = offset / sector;
    out.skip = std::size_t(offset % sector);
    out.count = (out.skip + length + sector - 1) / sector;
    return true;
}

} // namespace

bool readBytes(Interfaces::Storage& storage, std::uint64_t offset, std::span<std::uint8_t> out)
{
    Cover c{};
    if (!cover(storage, offset, out.size(), c))
        return false;
    if (out.empty())
        return true;
    std::vector<std::uint8_t> sectors(std::size_t(c.count * storage.elementSize()));
    if (storage.read(c.first, c.count, sectors.data()) != c.count)
        return false;
    std::copy_n(sectors.begin() + std::ptrdiff_t(c.skip), out.size(), out.begin());
    return true;
}

bool writeBytes(Interfaces::Storage& storage, std::uint64_t offset, std::span<const std::uint8_t> data)
{
    Cover c{};
    if (!cover(storage, offset, data.size(), c))
        return false;
    if (data.empty())
        return true;
    std::vector<std::uint8_t> sectors(std::size_t(c.count * storage.elementSize()));
    const bool partial = c.skip != 0 || data.size() % storage.elementSize() != 0;
    if (partial && storage.read(c.first, c.count, sectors.data()) != c.count)
        return false;
    std::copy(data.begin(), data.end(), sectors.begin() + std::ptrdiff_t(c.skip));
    return storage.write(c.first, c.count, sectors.data()) == c.count;
}

std::vector<std::uint8_t> readBytes(Interfaces::Storage& storage, std::uint64_t offset, std::size_t length)
{
    std::vector<std::uint8_t> bytes(length);
    if (!readBytes(storage, offset, bytes))
        bytes.clear();
    return bytes;
}

bool fitsInStorage(const Interfaces::Storage& storage, std::uint64_t count, std::uint64_t unitBytes)
{
    return unitBytes != 0 && count <= storage.elementCount() * storage.elementSize() / unitBytes;
}

} // namespace Platform
