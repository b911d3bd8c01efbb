#include "platform/archive/cpio_newc.h"

#include <algorithm>
#include <cstdio>

namespace Platform::CpioNewc {

namespace {

constexpr std::uint32_t kTypeMask = 0170000;
constexpr std::uint32_t kRegularFile = 0100000;

std::size_t padded(std::size_t length)
{
    return (length + 3) & ~std::size_t(3);
}

bool parseHex(std::span<const std::uint8_t> text, std::uint32_t& value)
{
    value = 0;
    for (const std::uint8_t c : text) {
        const int digit = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (digit < 0)
            return false;
        value = value << 4 | std::uint32_t(digit);
    }
    return true;
}

struct Header {
    std::uint32_t fields[13];
    bool withCheck;
    std::string name;
    std::size_t dataOffset; // from the header's start
    std::size_t end;        // from the header's start, padding included
};

bool parseHeader(std::span<const std::uint8_t> bytes, Header& header, std::string& error)
{
    if (bytes.size() < kHeaderSize || !startsArchive(bytes)) {
        error = "a cpio header is damaged or cut short";
        return false;
    }
    header.withCheck = bytes[5] == '2';
    for (std::size_t field = 0; field < 13; ++field)
        if (!parseHex(bytes.subspan(6 + field * kFieldWidth, kFieldWidth), header.fields[field])) {
            error = "a cpio header holds a field that is not hex";
            return false;
        }
    const std::size_t nameSize = header.fields[NameSize];
    const std::size_t fileSize = header.fields[FileSize];
    if (nameSize == 0 || nameSize > bytes.size() - kHeaderSize) {
        error = "a cpio member name runs past the archive";
        return false;
    }
    header.name.assign(reinterpret_cast<const char*>(bytes.data()) + kHeaderSize, nameSize - 1);
    header.dataOffset = padded(kHeaderSize + nameSize);
    if (header.dataOffset > bytes.size() || fileSize > bytes.size() - header.dataOffset) {
        error = "the cpio member " + header.name + " runs past the archive";
        return false;
    }
    header.end = std::min(padded(header.dataOffset + fileSize), bytes.size());
    return true;
}

std::string memberName(std::string name)
{
    if (name.rfind("./", 0) == 0)
        name.erase(0, 2);
    while (!name.empty() && name.front() == '/')
        name.erase(0, 1);
    return name;
}

void appendMember(const Header& header, std::span<const std::uint8_t> original, std::string_view content,
                  std::vector<std::uint8_t>& out)
{
    std::uint32_t fields[13];
    std::copy(std::begin(header.fields), std::end(header.fields), fields);
    fields[FileSize] = std::uint32_t(content.size());
    if (header.withCheck) {
        std::uint32_t sum = 0;
        for (const char c : content)
            sum += std::uint8_t(c);
        fields[Check] = sum;
    }
    char text[kHeaderSize + 1];
    int length = std::snprintf(text, sizeof text, "%.6s", reinterpret_cast<const char*>(original.data()));
    for (const std::uint32_t value : fields)
        length += std::snprintf(text + length, sizeof text - std::size_t(length), "%08X", value);
    out.insert(out.end(), text, text + kHeaderSize);
    out.insert(out.end(), original.begin() + kHeaderSize, original.begin() + std::ptrdiff_t(header.dataOffset));
    out.insert(out.end(), content.begin(), content.end());
    out.resize(out.size() + (padded(content.size()) - content.size()), 0);
}

} // namespace

bool startsArchive(std::span<const std::uint8_t> bytes)
{
    return bytes.size() >= kMagic.size() && std::equal(kMagic.begin(), kMagic.end() - 1, bytes.begin()) &&
           (bytes[5] == '1' || bytes[5] == '2');
}

bool rewriteArchives(std::span<const std::uint8_t> bytes, const InitramfsEdit& edit, std::vector<std::uint8_t>& out,
                     std::size_t& consumed, bool& changed, std::string& error)
{
    std::size_t position = 0;
    bool inArchive = false;
    while (position < bytes.size()) {
        if (!inArchive && bytes[position] == 0) { // padding between archives
            out.push_back(0);
            ++position;
            continue;
        }
        const auto rest = bytes.subspan(position);
        if (!inArchive && !startsArchive(rest))
            break;
        Header header;
        if (!parseHeader(rest, header, error))
            return false;
        inArchive = header.name != kTrailer;
        const auto data = rest.subspan(header.dataOffset, header.fields[FileSize]);
        std::optional<std::string> content;
        if ((header.fields[Mode] & kTypeMask) == kRegularFile && !data.empty())
            content = edit(memberName(header.name), {reinterpret_cast<const char*>(data.data()), data.size()});
        if (content) {
            appendMember(header, rest, *content, out);
            changed = true;
        } else {
            out.insert(out.end(), rest.begin(), rest.begin() + std::ptrdiff_t(header.end));
        }
        position += header.end;
    }
    if (inArchive) {
        error = "a cpio archive ends without its trailer";
        return false;
    }
    consumed = position;
    return true;
}

} // namespace Platform::CpioNewc
