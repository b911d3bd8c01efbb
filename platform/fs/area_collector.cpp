#include "platform/fs/area_collector.h"

#include "platform/core/error.h"

#include <algorithm>

namespace Platform {

AreaCollector::AreaCollector(std::uint32_t sectorSize, std::uint64_t fileSize)
    : sectorSize_(sectorSize), missing_((fileSize + sectorSize - 1) / sectorSize * sectorSize)
{
}

bool AreaCollector::add(std::uint64_t byteOffset, std::uint64_t bytes)
{
    if (byteOffset % sectorSize_ != 0 || bytes % sectorSize_ != 0) {
        Error::set(Error::Corrupt, "a run of the file does not lie on whole sectors");
        return false;
    }
    bytes = std::min(bytes, missing_);
    missing_ -= bytes;
    appendArea(areas_, {byteOffset / sectorSize_, bytes / sectorSize_});
    return true;
}

} // namespace Platform
