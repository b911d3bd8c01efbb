#include "platform/archive/compression.h"

#include <archive.h>
#include <archive_entry.h>
#include <lz4.h>
#include <lz4hc.h>
#include <lzma.h>

#include <algorithm>
#include <array>
#include <memory>

namespace Platform::InitramfsCompression {

namespace {

using ReadHandle = std::unique_ptr<archive, decltype(&archive_read_free)>;
using WriteHandle = std::unique_ptr<archive, decltype(&archive_write_free)>;

constexpr std::array<std::uint8_t, 4> kLz4LegacyMagic{0x02, 0x21, 0x4C, 0x18};
// The kernel's legacy lz4 reader takes blocks of up to 8 MiB, as lz4 -l writes them.
constexpr std::size_t kLz4LegacyBlock = 8 << 20;
constexpr std::size_t kXzStreamFlags = 7; // low nibble: the integrity check

bool startsWith(std::span<const std::uint8_t> bytes, std::span<const std::uint8_t> magic)
{
    return bytes.size() >= magic.size() && std::equal(magic.begin(), magic.end(), bytes.begin());
}

la_ssize_t appendTo(archive*, void* client, const void* buffer, std::size_t length)
{
    auto* out = static_cast<std::vector<std::uint8_t>*>(client);
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    out->insert(out->end(), bytes, bytes + length);
    return la_ssize_t(length);
}

bool packWithLibarchive(std::span<const std::uint8_t> data, int format, std::vector<std::uint8_t>& out,
                        std::string& error)
{
    WriteHandle writer(archive_write_new(), archive_write_free);
    archive* a = writer.get();
    if (archive_write_add_filter(a, format) != ARCHIVE_OK || archive_write_set_format_raw(a) != ARCHIVE_OK) {
        error = archive_error_string(a) ? archive_error_string(a) : "this compression cannot be written";
        return false;
    }
    if (format == ARCHIVE_FILTER_GZIP)
        archive_write_set_filter_option(a, "gzip", "timestamp", nullptr); // as gzip -n: no time stamp
    if (format == ARCHIVE_FILTER_ZSTD) {
        // The level initramfs-tools packs with: the image keeps its size on a small /boot.
        archive_write_set_filter_option(a, "zstd", "compression-level", "9");
        archive_write_set_filter_option(a, "zstd", "threads", "0");
    }
    archive_write_set_bytes_in_last_block(a, 1); // no padding after the stream
    std::unique_ptr<archive_entry, decltype(&archive_entry_free)> entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname(entry.get(), "initramfs");
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_size(entry.get(), la_int64_t(data.size()));
    if (archive_write_open(a, &out, nullptr, appendTo, nullptr) != ARCHIVE_OK ||
        archive_write_header(a, entry.get()) != ARCHIVE_OK) {
        error = archive_error_string(a);
        return false;
    }
    for (std::size_t done = 0; done < data.size();) {
        const la_ssize_t written = archive_write_data(a, data.data() + done, data.size() - done);
        if (written <= 0) {
            error = archive_error_string(a) ? archive_error_string(a) : "compressing failed";
            return false;
        }
        done += std::size_t(written);
    }
    if (archive_write_close(a) != ARCHIVE_OK) {
        error = archive_error_string(a);
        return false;
    }
    return true;
}

bool packXz(std::span<const std::uint8_t> data, lzma_check check, std::vector<std::uint8_t>& out, std::string& error)
{
    lzma_stream stream = LZMA_STREAM_INIT;
    if (lzma_easy_encoder(&stream, 6, check) != LZMA_OK) {
        error = "the xz encoder cannot be set up";
        return false;
    }
    out.resize(lzma_stream_buffer_bound(data.size()));
    stream.next_in = data.data();
    stream.avail_in = data.size();
    stream.next_out = out.data();
    stream.avail_out = out.size();
    const lzma_ret result = lzma_code(&stream, LZMA_FINISH);
    out.resize(stream.total_out);
    lzma_end(&stream);
    if (result != LZMA_STREAM_END) {
        error = "xz compression failed";
        return false;
    }
    return true;
}

bool packLz4Legacy(std::span<const std::uint8_t> data, std::vector<std::uint8_t>& out, std::string& error)
{
    out.assign(kLz4LegacyMagic.begin(), kLz4LegacyMagic.end());
    const auto bound = std::size_t(LZ4_compressBound(int(kLz4LegacyBlock)));
    std::vector<char> block(bound);
    for (std::size_t done = 0; done < data.size();) {
        const std::size_t length = std::min(kLz4LegacyBlock, data.size() - done);
        const int packed = LZ4_compress_HC(reinterpret_cast<const char*>(data.data() + done), block.data(), int(length),
                                           int(block.size()), LZ4HC_CLEVEL_MAX);
        if (packed <= 0) {
            error = "lz4 compression failed";
            return false;
        }
        for (int shift = 0; shift < 32; shift += 8)
            out.push_back(std::uint8_t(std::uint32_t(packed) >> shift));
        out.insert(out.end(), block.begin(), block.begin() + packed);
        done += length;
    }
    return true;
}

} // namespace

bool looksCompressed(std::span<const std::uint8_t> start)
{
    static constexpr std::uint8_t kGzip[] = {0x1F, 0x8B}, kZstd[] = {0x28, 0xB5, 0x2F, 0xFD},
                                  kXz[] = {0xFD, '7', 'z', 'X', 'Z', 0x00}, kLz4Frame[] = {0x04, 0x22, 0x4D, 0x18},
                                  kBzip2[] = {'B', 'Z', 'h'}, kLzma[] = {0x5D, 0x00, 0x00},
                                  kLzop[] = {0x89, 'L', 'Z', 'O'};
    for (const std::span<const std::uint8_t> magic :
         {std::span<const std::uint8_t>(kGzip), std::span<const std::uint8_t>(kZstd),
          std::span<const std::uint8_t>(kXz), std::span<const std::uint8_t>(kLz4Frame),
          std::span<const std::uint8_t>(kLz4LegacyMagic), std::span<const std::uint8_t>(kBzip2),
          std::span<const std::uint8_t>(kLzma), std::span<const std::uint8_t>(kLzop)})
        if (startsWith(start, magic))
            return true;
    return false;
}

bool unpack(std::span<const std::uint8_t> stream, Unpacked& out, std::string& error)
{
    ReadHandle reader(archive_read_new(), archive_read_free);
    archive* a = reader.get();
    archive_read_support_filter_all(a);
    archive_read_support_format_raw(a);
    archive_entry* entry = nullptr;
    if (archive_read_open_memory(a, stream.data(), stream.size()) != ARCHIVE_OK ||
        archive_read_next_header(a, &entry) != ARCHIVE_OK) {
        error = std::string("the compressed archive cannot be read: ") +
                (archive_error_string(a) ? archive_error_string(a) : "unknown format");
        return false;
    }
    out.format = archive_filter_code(a, 0);
    out.name = archive_filter_name(a, 0) ? archive_filter_name(a, 0) : "?";
    if (out.format == ARCHIVE_FILTER_NONE) {
        error = "the data after the plain archives is neither cpio nor compressed";
        return false;
    }
    std::array<std::uint8_t, 1 << 16> buffer;
    for (;;) {
        const la_ssize_t read = archive_read_data(a, buffer.data(), buffer.size());
        if (read < 0) {
            error = "the " + out.name +
                    " archive is damaged: " + (archive_error_string(a) ? archive_error_string(a) : "read error");
            return false;
        }
        if (read == 0)
            return true;
        out.data.insert(out.data.end(), buffer.begin(), buffer.begin() + read);
    }
}

bool pack(std::span<const std::uint8_t> data, std::span<const std::uint8_t> original, const Unpacked& unpacked,
          std::vector<std::uint8_t>& out, std::string& error)
{
    switch (unpacked.format) {
    case ARCHIVE_FILTER_GZIP:
    case ARCHIVE_FILTER_ZSTD:
        return packWithLibarchive(data, unpacked.format, out, error);
    case ARCHIVE_FILTER_XZ:
        if (original.size() <= kXzStreamFlags) {
            error = "the xz stream header is cut short";
            return false;
        }
        return packXz(data, lzma_check(original[kXzStreamFlags] & 0x0F), out, error);
    case ARCHIVE_FILTER_LZ4:
        if (startsWith(original, kLz4LegacyMagic))
            return packLz4Legacy(data, out, error);
        return packWithLibarchive(data, unpacked.format, out, error);
    default:
        error = "a " + unpacked.name + "-compressed archive cannot be written again";
        return false;
    }
}

} // namespace Platform::InitramfsCompression
