#pragma once
// The cpio "newc" format (magic 070701, or 070702 with a data checksum) that initramfs images are
// made of: 110-byte ASCII headers of thirteen 8-digit hex fields, the name, the data, each padded
// to four bytes.

#include "platform/archive/initramfs.h"

namespace Platform::CpioNewc {

inline constexpr std::size_t kHeaderSize = 110;
inline constexpr std::size_t kFieldWidth = 8;
// Field positions after the 6-byte magic.
enum Field : std::size_t {
    Inode,
    Mode,
    Uid,
    Gid,
    Links,
    Mtime,
    FileSize,
    DevMajor,
    DevMinor,
    RdevMajor,
    RdevMinor,
    NameSize,
    Check,
};
inline constexpr std::string_view kMagic = "070701";
inline constexpr std::string_view kMagicWithCheck = "070702";
inline constexpr std::string_view kTrailer = "TRAILER!!!";

bool startsArchive(std::span<const std::uint8_t> bytes);

// Passes every member of the archives at the start of bytes (and the zero padding between them)
// through edit into out. consumed: how many bytes the archives and their padding took; the
// first byte after them starts something else (a compressed archive). false with error when an
// archive is damaged.
bool rewriteArchives(std::span<const std::uint8_t> bytes, const InitramfsEdit& edit, std::vector<std::uint8_t>& out,
                     std::size_t& consumed, bool& changed, std::string& error);

} // namespace Platform::CpioNewc
