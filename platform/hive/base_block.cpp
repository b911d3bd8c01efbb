#include "platform/hive/base_block.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/hive/layout.h"

#include <cstring>

namespace Platform::Hive {

namespace L = Layout::BaseBlock;

std::uint32_t BaseBlock::checksumOf(std::span<const std::uint8_t> block)
{
    ByteView view(block);
    std::uint32_t sum = 0;
    for (std::size_t offset = 0; offset < L::kChecksum; offset += 4)
        sum ^= view.u32(offset);
    if (!view.ok())
        return 0;
    return sum == 0xFFFFFFFF ? 0xFFFFFFFE : sum == 0 ? 1 : sum;
}

std::optional<BaseBlock> BaseBlock::parse(std::span<const std::uint8_t> block)
{
    if (block.size() < Layout::Log::kSector || std::memcmp(block.data(), L::kSignature, 4) != 0) {
        Error::set(Error::Corrupt, "no registry hive: the base block does not start with \"regf\"");
        return std::nullopt;
    }
    ByteView view(block);
    BaseBlock base;
    base.primarySequence = view.u32(L::kPrimarySequence);
    base.secondarySequence = view.u32(L::kSecondarySequence);
    base.majorVersion = view.u32(L::kMajorVersion);
    base.minorVersion = view.u32(L::kMinorVersion);
    base.fileType = view.u32(L::kFileType);
    base.rootCell = view.u32(L::kRootCell);
    base.binsSize = view.u32(L::kBinsSize);
    base.checksumRight = view.u32(L::kChecksum) == checksumOf(block);
    if (!view.ok())
        return std::nullopt;
    return base;
}

std::string BaseBlock::problem() const
{
    if (majorVersion != 1 || minorVersion < 3 || minorVersion > 6)
        return "the hive's version " + std::to_string(majorVersion) + "." + std::to_string(minorVersion) +
               " is not 1.3 to 1.6";
    if (binsSize == 0 || binsSize % Layout::kPageSize != 0)
        return "the hive bins size " + std::to_string(binsSize) + " is not a positive multiple of 4096";
    return {};
}

} // namespace Platform::Hive
