#include "platform/hive/hive.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/core/string_util.h"
#include "platform/core/unicode.h"
#include "platform/hive/layout.h"
#include "platform/hive/names.h"

#include <algorithm>

namespace Platform::Hive {

namespace {

constexpr unsigned kMaxKeyDepth = 512; // the deepest key tree Windows creates

std::string quoted(const std::string& name)
{
    std::string text = "\"";
    for (const char c : name) {
        if (c == '\\' || c == '"')
            text += '\\';
        text += c;
    }
    return text + "\"";
}

void writeData(std::uint32_t type, const std::vector<std::uint8_t>& data, std::ostream& out)
{
    static const char digits[] = "0123456789abcdef";
    if (type == 4 && data.size() == 4) {
        const std::uint32_t dword =
            std::uint32_t(data[0] | data[1] << 8 | data[2] << 16 | std::uint32_t(data[3]) << 24);
        std::string text = "dword:";
        for (int shift = 28; shift >= 0; shift -= 4)
            text += digits[(dword >> shift) & 0xF];
        out << text << '\n';
        return;
    }
    std::string text = "hex(";
    std::string typeDigits;
    for (std::uint32_t rest = type; typeDigits.empty() || rest; rest >>= 4)
        typeDigits.insert(typeDigits.begin(), digits[rest & 0xF]);
    text += typeDigits + "):";
    for (std::size_t i = 0; i < data.size(); ++i) {
        if (i)
            text += ',';
        text += digits[data[i] >> 4];
        text += digits[data[i] & 0xF];
    }
    out << text << '\n';
}

} // namespace

std::optional<Hive> Hive::load(std::vector<std::uint8_t> file)
{
    const auto base = BaseBlock::parse(file);
    if (!base)
        return std::nullopt;
    if (const std::string problem = base->problem(); !problem.empty()) {
        Error::set(Error::Corrupt, problem);
        return std::nullopt;
    }
    if (file.size() < Layout::BaseBlock::kSize + std::size_t(base->binsSize)) {
        Error::set(Error::Corrupt, "the file ends before its hive bins do");
        return std::nullopt;
    }
    // The file's own buffer becomes the bins: a hive of many megabytes is not copied.
    std::vector<std::uint8_t> baseBytes(file.begin(), file.begin() + Layout::BaseBlock::kSize);
    file.erase(file.begin(), file.begin() + Layout::BaseBlock::kSize);
    file.resize(base->binsSize);
    auto cells = Cells::load(std::move(file));
    if (!cells)
        return std::nullopt;
    return Hive(*base, std::move(baseBytes), std::move(*cells));
}

void Hive::settle(std::uint32_t sequence)
{
    baseBytes_ = baseBlockFor(sequence, sequence);
    base_.primarySequence = base_.secondarySequence = sequence;
    base_.binsSize = std::uint32_t(cells_.bytes().size());
    base_.checksumRight = true;
    cells_.forgetChanges();
}

void Hive::setSequence(std::uint32_t sequence)
{
    base_.primarySequence = base_.secondarySequence = sequence;
    base_.checksumRight = true;
}

std::vector<std::uint8_t> Hive::baseBlockFor(std::uint32_t primary, std::uint32_t secondary) const
{
    namespace B = Layout::BaseBlock;
    std::vector<std::uint8_t> block = baseBytes_;
    ByteWriter writer(block);
    writer.u32(B::kPrimarySequence, primary);
    writer.u32(B::kSecondarySequence, secondary);
    writer.u32(B::kBinsSize, std::uint32_t(cells_.bytes().size()));
    writer.u32(B::kFileType, 0);
    writer.u32(B::kChecksum, BaseBlock::checksumOf(block));
    (void)writer.ok(); // a base block is 4096 bytes
    return block;
}

std::optional<KeyRecord> Hive::find(const std::string& path) const
{
    auto key = root();
    for (const auto& part : StringUtil::split(path, "\\")) {
        if (!key || part.empty())
            continue;
        const auto child = findSubkey(key->offset, part);
        if (!child)
            return std::nullopt;
        key = readKey(cells_, *child);
    }
    return key;
}

bool Hive::exportTree(const KeyRecord& key, const std::string& path, std::ostream& out) const
{
    return exportTree(key, path, out, 0);
}

bool Hive::exportTree(const KeyRecord& key, const std::string& path, std::ostream& out, unsigned depth) const
{
    if (depth > kMaxKeyDepth) {
        Error::set(Error::Corrupt, "the key tree is deeper than " + std::to_string(kMaxKeyDepth) + " levels at \"" +
                                       key.name + "\": a subkey list leads back up");
        return false;
    }
    out << '[' << (path.empty() ? "\\" : path) << "]\n";
    const auto valueList = readValueList(cells_, key);
    if (!valueList)
        return false;
    std::vector<std::pair<ValueRecord, std::vector<std::uint8_t>>> values;
    for (const std::uint32_t offset : *valueList) {
        auto value = readValue(cells_, offset);
        auto data = value ? readData(cells_, *value, base_.minorVersion) : std::nullopt;
        if (!data)
            return false;
        values.emplace_back(std::move(*value), std::move(*data));
    }
    std::sort(values.begin(), values.end(), [](const auto& a, const auto& b) { return a.first.name < b.first.name; });
    for (const auto& [value, data] : values) {
        out << (value.name.empty() ? "@" : quoted(value.name)) << '=';
        writeData(value.type, data, out);
    }
    out << '\n';
    const auto subkeys = readSubkeys(cells_, key);
    if (!subkeys)
        return false;
    std::vector<KeyRecord> children;
    for (const std::uint32_t offset : *subkeys) {
        auto child = readKey(cells_, offset);
        if (!child)
            return false;
        children.push_back(std::move(*child));
    }
    std::sort(children.begin(), children.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    for (const auto& child : children)
        if (!exportTree(child, path + "\\" + child.name, out, depth + 1))
            return false;
    return true;
}

} // namespace Platform::Hive
