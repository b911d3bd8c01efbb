#pragma once
// The compressed archive of an initramfs image: unpacked through libarchive (every compression
// it reads), packed again in the same format. libarchive writes gzip, zstd and lz4 frames; xz is
// written with liblzma so that it keeps its integrity check (the kernel reads CRC32 or none, not
// libarchive's CRC64), and lz4's legacy format, the only one the kernel reads, with liblz4.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Platform::InitramfsCompression {

struct Unpacked {
    std::vector<std::uint8_t> data;
    int format = 0; // libarchive's filter code
    std::string name;
};

// The uncompressed bytes of a compressed stream; false with error when it is none or damaged.
bool unpack(std::span<const std::uint8_t> stream, Unpacked& out, std::string& error);

// data compressed as original is; false with error when that format cannot be written.
bool pack(std::span<const std::uint8_t> data, std::span<const std::uint8_t> original, const Unpacked& unpacked,
          std::vector<std::uint8_t>& out, std::string& error);

bool looksCompressed(std::span<const std::uint8_t> start);

} // namespace Platform::InitramfsCompression
