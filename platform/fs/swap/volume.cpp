#include "platform/fs/swap/volume.h"
#include "platform/fs/swap/layout.h"

#include "platform/core/bytes.h"
#include "platform/storage/byte_io.h"

#include <algorithm>
#include <string_view>

namespace Platform {

namespace {

using namespace Swap::Layout;

bool startsWith(std::span<const std::uint8_t> bytes, std::string_view text)
{
    return bytes.size() >= text.size() && std::equal(text.begin(), text.end(), bytes.begin());
}

std::optional<SwapVolume::State> stateOf(std::span<const std::uint8_t> signature)
{
    if (startsWith(signature, kSwapSignature))
        return SwapVolume::State::Swap;
    for (const auto hibernated : kHibernationSignatures)
        if (startsWith(signature, hibernated))
            return SwapVolume::State::Hibernated;
    return std::nullopt;
}

// Version 1 in either byte order, and a last page that is not below the header page.
bool headerFits(Interfaces::Storage& storage)
{
    const auto header = readBytes(storage, kVersion, kLastPage + 4 - kVersion);
    if (header.empty())
        return false;
    ByteView view(header);
    const std::uint32_t version = view.u32(0);
    constexpr std::size_t lastPageAt = kLastPage - kVersion;
    const bool bigEndian = version == 0x01000000;
    if (version != 1 && !bigEndian)
        return false;
    const std::uint32_t lastPage = bigEndian ? view.be32(lastPageAt) : view.u32(lastPageAt);
    return lastPage >= 1;
}

} // namespace

std::optional<SwapVolume::Layout> SwapVolume::detect(Interfaces::Storage& storage)
{
    const std::uint64_t size = storage.elementCount() * storage.elementSize();
    for (const std::uint32_t pageSize : kPageSizes) {
        if (size < 2ULL * pageSize)
            break;
        const auto signature = readBytes(storage, pageSize - kSignatureLength, kSignatureLength);
        if (signature.empty())
            return std::nullopt;
        if (const auto state = stateOf(signature))
            return headerFits(storage) ? std::optional(Layout{pageSize, *state}) : std::nullopt;
    }
    return std::nullopt;
}

Ref<ByteArray> SwapVolume::volumeId() const
{
    return idAt(kUuid);
}

bool SwapVolume::writeVolumeId(std::span<const std::uint8_t> id)
{
    if (layout_.state == State::Hibernated)
        return fail(Error::DirtyLog, "the swap area holds a hibernation image; resume and shut that system down first");
    if (!writeBytes(*storage_, kUuid, id))
        return fail(Error::Io, "writing the swap header failed");
    return true;
}

} // namespace Platform
