#include "platform/archive/initramfs.h"

#include "platform/archive/compression.h"
#include "platform/archive/cpio_newc.h"

#include <algorithm>

namespace Platform {

namespace {

// The archives inside a compressed one, edited; the new compressed bytes in out when a member
// changed.
bool rewriteCompressed(std::span<const std::uint8_t> stream, const InitramfsEdit& edit, std::vector<std::uint8_t>& out,
                       bool& changed, std::string& error)
{
    InitramfsCompression::Unpacked unpacked;
    if (!InitramfsCompression::unpack(stream, unpacked, error))
        return false;
    std::vector<std::uint8_t> archives;
    std::size_t consumed = 0;
    bool edited = false;
    if (!CpioNewc::rewriteArchives(unpacked.data, edit, archives, consumed, edited, error))
        return false;
    if (consumed != unpacked.data.size()) {
        error = "the " + unpacked.name + " archive holds something other than cpio archives";
        return false;
    }
    if (!edited) {
        out.insert(out.end(), stream.begin(), stream.end());
        return true;
    }
    std::vector<std::uint8_t> packed;
    if (!InitramfsCompression::pack(archives, stream, unpacked, packed, error))
        return false;
    out.insert(out.end(), packed.begin(), packed.end());
    changed = true;
    return true;
}

} // namespace

bool looksLikeInitramfs(std::span<const std::uint8_t> start)
{
    return CpioNewc::startsArchive(start) || InitramfsCompression::looksCompressed(start);
}

InitramfsRewrite rewriteInitramfs(std::span<const std::uint8_t> image, const InitramfsEdit& edit)
{
    InitramfsRewrite result;
    std::vector<std::uint8_t> out;
    out.reserve(image.size());
    std::size_t consumed = 0;
    bool changed = false;
    result.ok = CpioNewc::rewriteArchives(image, edit, out, consumed, changed, result.error);
    // The kernel unpacks a compressed archive to the end of the image: it is the last one.
    if (result.ok && consumed < image.size())
        result.ok = rewriteCompressed(image.subspan(consumed), edit, out, changed, result.error);
    if (result.ok && changed) {
        result.changed = true;
        result.image = std::move(out);
    }
    return result;
}

} // namespace Platform
