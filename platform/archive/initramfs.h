#pragma once
// Linux initramfs images: a sequence of cpio archives (newc), each stored as it is or
// compressed, as the kernel unpacks them (an uncompressed early archive with CPU microcode
// followed by a compressed main archive is the usual make-up). Members can be edited in place:
// every other byte of a plain archive, and every other member of a compressed one, stays as it
// was, and a compressed archive is compressed again in its own format.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Platform {

// The new content of a regular-file member, or nothing to keep it. name is the member's path
// without a leading "./" or "/".
using InitramfsEdit = std::function<std::optional<std::string>(const std::string& name, std::string_view content)>;

struct InitramfsRewrite {
    bool changed = false;
    std::vector<std::uint8_t> image; // the whole new image, when changed
    std::string error;               // why the image was refused, when not ok
    bool ok = true;
};

// Walks every member of every archive of image through edit. Refuses (ok false, nothing
// changed) an image that is not a sequence of cpio archives, a damaged archive, or a
// compression that cannot be written again (the kernel reads xz only with CRC32 or no check,
// and lz4 only in its legacy format; those are kept as they were).
InitramfsRewrite rewriteInitramfs(std::span<const std::uint8_t> image, const InitramfsEdit& edit);

// Whether the bytes start like an initramfs image (a cpio header or a compressed stream).
bool looksLikeInitramfs(std::span<const std::uint8_t> start);

} // namespace Platform
