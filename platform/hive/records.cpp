#include "platform/hive/records.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/core/unicode.h"
#include "platform/hive/layout.h"

#include <algorithm>
#include <cstring>

namespace Platform::Hive {

namespace L = Layout;

namespace {

template <typename T>
std::optional<T> damaged(const std::string& what)
{
    Error::set(Error::Corrupt, what);
    return std::nullopt;
}

bool refuse(const std::string& what)
{
    Error::set(Error::Corrupt, what);
    return false;
}

// count cell offsets stride bytes apart from first, appended to out; false when they do not fit.
bool offsetsIn(std::span<const std::uint8_t> data, std::size_t first, std::size_t count, std::size_t stride,
               std::vector<std::uint32_t>& out, const std::string& what)
{
    if (first + count * stride > data.size())
        return refuse(what + " does not fit its cell");
    ByteView view(data);
    for (std::size_t i = 0; i < count; ++i)
        out.push_back(view.u32(first + i * stride));
    return view.ok();
}

// A name as the record stores it: Latin-1 bytes when compressed, else UTF-16LE.
std::string nameText(std::span<const std::uint8_t> bytes, bool compressed)
{
    std::u16string units;
    if (compressed) {
        units.assign(bytes.begin(), bytes.end());
    } else {
        for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
            units += char16_t(bytes[i] | bytes[i + 1] << 8);
    }
    return utf8(units);
}

// The key offsets of one leaf list (li, lf or lh), appended.
bool readLeaf(const Cells& cells, std::uint32_t offset, std::vector<std::uint32_t>& keys)
{
    const auto data = cells.cell(offset);
    if (!data)
        return false;
    ByteView view(*data);
    const std::uint16_t count = view.u16(L::List::kCount);
    const bool withHints = data->size() >= 2 && ((*data)[0] == 'l' && ((*data)[1] == 'f' || (*data)[1] == 'h'));
    const bool plain = data->size() >= 2 && (*data)[0] == 'l' && (*data)[1] == 'i';
    if (!withHints && !plain)
        return refuse("a subkey list holds a list that is no li, lf or lh");
    return offsetsIn(*data, L::List::kElements, count, withHints ? 8 : 4, keys,
                     "a subkey list of " + std::to_string(count) + " keys");
}

} // namespace

std::optional<KeyRecord> readKey(const Cells& cells, std::uint32_t offset)
{
    const auto data = cells.record(offset, "nk", L::Key::kName);
    if (!data)
        return std::nullopt;
    ByteView view(*data);
    KeyRecord key;
    key.offset = offset;
    key.flags = view.u16(L::Key::kFlags);
    key.subkeyCount = view.u32(L::Key::kSubkeyCount);
    key.subkeyList = view.u32(L::Key::kSubkeyList);
    key.valueCount = view.u32(L::Key::kValueCount);
    key.valueList = view.u32(L::Key::kValueList);
    key.security = view.u32(L::Key::kSecurity);
    key.classCell = view.u32(L::Key::kClass);
    key.classLength = view.u16(L::Key::kClassLength);
    const std::uint16_t nameLength = view.u16(L::Key::kNameLength);
    if (!view.ok() || L::Key::kName + nameLength > data->size())
        return damaged<KeyRecord>("the name of the key at " + std::to_string(offset) + " does not fit its cell");
    key.name = nameText(data->subspan(L::Key::kName, nameLength), key.flags & L::Key::kFlagCompressedName);
    return key;
}

std::optional<std::vector<std::uint32_t>> readSubkeys(const Cells& cells, const KeyRecord& key)
{
    std::vector<std::uint32_t> keys;
    if (key.subkeyCount == 0)
        return keys;
    const auto list = cells.cell(key.subkeyList);
    if (!list)
        return std::nullopt;
    if (list->size() >= 2 && (*list)[0] == 'r' && (*list)[1] == 'i') {
        std::vector<std::uint32_t> leaves;
        if (!offsetsIn(*list, L::List::kElements, ByteView(*list).u16(L::List::kCount), 4, leaves, "an ri list"))
            return std::nullopt;
        for (const std::uint32_t leaf : leaves)
            if (!readLeaf(cells, leaf, keys))
                return std::nullopt;
    } else if (!readLeaf(cells, key.subkeyList, keys)) {
        return std::nullopt;
    }
    if (keys.size() != key.subkeyCount)
        return damaged<std::vector<std::uint32_t>>("the key \"" + key.name + "\" counts " +
                                                   std::to_string(key.subkeyCount) + " subkeys, its lists hold " +
                                                   std::to_string(keys.size()));
    return keys;
}

std::optional<std::vector<std::uint32_t>> readValueList(const Cells& cells, const KeyRecord& key)
{
    std::vector<std::uint32_t> values;
    if (key.valueCount == 0)
        return values;
    const auto list = cells.cell(key.valueList);
    if (!list)
        return std::nullopt;
    if (!offsetsIn(*list, 0, key.valueCount, 4, values, "the value list of \"" + key.name + "\""))
        return std::nullopt;
    return values;
}

std::optional<ValueRecord> readValue(const Cells& cells, std::uint32_t offset)
{
    const auto data = cells.record(offset, "vk", L::Value::kName);
    if (!data)
        return std::nullopt;
    ByteView view(*data);
    ValueRecord value;
    value.offset = offset;
    const std::uint32_t size = view.u32(L::Value::kDataSize);
    value.inlineData = (size & L::Value::kInlineData) != 0;
    value.dataSize = size & ~L::Value::kInlineData;
    value.dataField = view.u32(L::Value::kData);
    value.type = view.u32(L::Value::kType);
    const std::uint16_t nameLength = view.u16(L::Value::kNameLength);
    const bool compressed = view.u16(L::Value::kFlags) & L::Value::kFlagCompressedName;
    if (!view.ok() || L::Value::kName + nameLength > data->size())
        return damaged<ValueRecord>("the name of the value at " + std::to_string(offset) + " does not fit its cell");
    if (value.inlineData && value.dataSize > 4)
        return damaged<ValueRecord>("the value at " + std::to_string(offset) + " keeps " +
                                    std::to_string(value.dataSize) + " bytes inline");
    value.name = nameText(data->subspan(L::Value::kName, nameLength), compressed);
    return value;
}

std::optional<std::vector<std::uint8_t>> readData(const Cells& cells, const ValueRecord& value,
                                                  std::uint32_t minorVersion)
{
    using Bytes = std::vector<std::uint8_t>;
    if (value.inlineData) {
        Bytes bytes(4);
        std::memcpy(bytes.data(), &value.dataField, 4); // the field as stored, little-endian
        bytes.resize(value.dataSize);
        return bytes;
    }
    if (value.dataSize == 0)
        return Bytes{};
    const auto cell = cells.cell(value.dataField);
    if (!cell)
        return std::nullopt;
    const bool bigData = minorVersion > 3 && value.dataSize > L::BigData::kSegmentBytes && cell->size() >= 8 &&
                         (*cell)[0] == 'd' && (*cell)[1] == 'b';
    if (!bigData) {
        if (value.dataSize > cell->size())
            return damaged<Bytes>("the data of \"" + value.name + "\" does not fit its cell");
        return Bytes(cell->begin(), cell->begin() + value.dataSize);
    }
    ByteView view(*cell);
    const std::uint16_t segments = view.u16(L::BigData::kSegmentCount);
    const auto list = cells.cell(view.u32(L::BigData::kSegmentList));
    if (!list || std::size_t(segments) * 4 > list->size())
        return damaged<Bytes>("the big-data segment list of \"" + value.name + "\" is damaged");
    Bytes bytes;
    ByteView entries(*list);
    for (std::size_t i = 0; i < segments && bytes.size() < value.dataSize; ++i) {
        const auto segment = cells.cell(entries.u32(i * 4));
        if (!segment)
            return std::nullopt;
        const std::size_t take =
            std::min(std::min<std::size_t>(segment->size(), L::BigData::kSegmentBytes), value.dataSize - bytes.size());
        bytes.insert(bytes.end(), segment->begin(), segment->begin() + std::ptrdiff_t(take));
    }
    if (bytes.size() != value.dataSize)
        return damaged<Bytes>("the big data of \"" + value.name + "\" is shorter than its size");
    return bytes;
}

} // namespace Platform::Hive
