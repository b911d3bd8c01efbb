// Setting, creating and deleting values: vk cells, the key's value list, and the data inline, in
// one cell (reused when the new data fits it) or as big data on hives that know it.

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/hive/hive.h"
#include "platform/hive/layout.h"
#include "platform/hive/names.h"

#include <algorithm>
#include <cstring>

namespace Platform::Hive {

namespace {

namespace K = Layout::Key;
namespace V = Layout::Value;
namespace D = Layout::BigData;

constexpr std::uint32_t kMaxData = 0x7FFFFFF0; // below the inline flag, with room for cell headers

std::span<const std::uint8_t> ascii(const char* text)
{
    return {reinterpret_cast<const std::uint8_t*>(text), std::strlen(text)};
}

} // namespace

std::optional<std::uint32_t> Hive::findValue(std::uint32_t key, const std::string& name) const
{
    const auto record = readKey(cells_, key);
    return findNamed(cells_, record ? readValueList(cells_, *record) : std::nullopt, readValue, name);
}

bool Hive::bigData(const ValueRecord& value) const
{
    if (value.inlineData || base_.minorVersion <= 3 || value.dataSize <= D::kSegmentBytes)
        return false;
    const auto cell = cells_.cell(value.dataField);
    return cell && cell->size() >= 8 && (*cell)[0] == 'd' && (*cell)[1] == 'b';
}

void Hive::releaseData(const ValueRecord& value)
{
    if (value.inlineData || value.dataSize == 0 || !cells_.cell(value.dataField))
        return;
    if (bigData(value)) {
        ByteView db(*cells_.cell(value.dataField));
        const std::uint16_t count = db.u16(D::kSegmentCount);
        const std::uint32_t listCell = db.u32(D::kSegmentList);
        (void)db.ok();
        if (const auto list = cells_.cell(listCell)) {
            ByteView segments(*list);
            for (std::size_t i = 0; i < count && (i + 1) * 4 <= list->size(); ++i)
                if (const std::uint32_t segment = segments.u32(i * 4); cells_.cell(segment))
                    cells_.release(segment);
            (void)segments.ok();
            cells_.release(listCell);
        }
    }
    cells_.release(value.dataField);
}

// New cells holding data; the data field, with sizeField set to what the vk stores.
std::optional<std::uint32_t> Hive::storeData(std::span<const std::uint8_t> data, std::uint32_t& sizeField)
{
    if (data.size() <= 4) {
        std::uint32_t field = 0;
        if (!data.empty())
            std::memcpy(&field, data.data(), data.size()); // stored as the bytes lie, little-endian
        sizeField = std::uint32_t(data.size()) | V::kInlineData;
        return field;
    }
    sizeField = std::uint32_t(data.size());
    if (base_.minorVersion <= 3 || data.size() <= D::kSegmentBytes) {
        const auto cell = cells_.allocate(data.size());
        if (cell)
            std::memcpy(cells_.writable(*cell).data(), data.data(), data.size());
        return cell;
    }
    const std::size_t count = (data.size() + D::kSegmentBytes - 1) / D::kSegmentBytes;
    const auto db = cells_.allocate(8);
    const auto list = db ? cells_.allocate(4 * count) : std::nullopt;
    if (!list)
        return std::nullopt;
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t first = i * D::kSegmentBytes;
        const std::size_t length = std::min<std::size_t>(D::kSegmentBytes, data.size() - first);
        const auto segment = cells_.allocate(length);
        if (!segment)
            return std::nullopt;
        std::memcpy(cells_.writable(*segment).data(), data.data() + first, length);
        ByteWriter(cells_.writable(*list)).u32(4 * i, *segment);
    }
    ByteWriter writer(cells_.writable(*db));
    writer.bytes(0, ascii("db"));
    writer.u16(D::kSegmentCount, std::uint16_t(count));
    writer.u32(D::kSegmentList, *list);
    if (!writer.ok())
        return std::nullopt;
    return db;
}

std::optional<std::uint32_t> Hive::setValue(std::uint32_t key, const std::string& name, std::uint32_t type,
                                            std::span<const std::uint8_t> data)
{
    if (data.size() > kMaxData || (base_.minorVersion > 3 && data.size() > D::kSegmentBytes * 0xFFFFull)) {
        Error::set(Error::TooLarge, "the value's data is larger than a hive can hold");
        return std::nullopt;
    }
    const auto record = readKey(cells_, key);
    if (!record)
        return std::nullopt;
    std::optional<std::uint32_t> offset = findValue(key, name);
    if (!offset && Error::get() != Error::PathNotFound)
        return std::nullopt;
    std::uint32_t sizeField = 0;
    if (offset) {
        const auto old = readValue(cells_, *offset);
        if (!old)
            return std::nullopt;
        const auto oldCell =
            old->inlineData || old->dataSize == 0 || bigData(*old) ? std::nullopt : cells_.cell(old->dataField);
        const bool fitsInPlace = oldCell && data.size() > 4 && data.size() <= oldCell->size() &&
                                 (base_.minorVersion <= 3 || data.size() <= D::kSegmentBytes);
        std::uint32_t field = old->dataField;
        if (fitsInPlace) {
            std::memcpy(cells_.writable(old->dataField).data(), data.data(), data.size());
            sizeField = std::uint32_t(data.size());
        } else {
            const auto stored = storeData(data, sizeField);
            if (!stored)
                return std::nullopt;
            releaseData(*old);
            field = *stored;
        }
        ByteWriter writer(cells_.writable(*offset));
        writer.u32(V::kDataSize, sizeField);
        writer.u32(V::kData, field);
        writer.u32(V::kType, type);
        if (!writer.ok())
            return std::nullopt;
    } else {
        const StoredName stored = storedName(name);
        if (stored.bytes.size() > 0xFFFF) {
            Error::set(Error::Invalid, "the value name is too long");
            return std::nullopt;
        }
        const auto field = storeData(data, sizeField);
        const auto vk = field ? cells_.allocate(V::kName + stored.bytes.size()) : std::nullopt;
        if (!vk)
            return std::nullopt;
        ByteWriter writer(cells_.writable(*vk));
        writer.bytes(0, ascii("vk"));
        writer.u16(V::kNameLength, std::uint16_t(stored.bytes.size()));
        writer.u32(V::kDataSize, sizeField);
        writer.u32(V::kData, *field);
        writer.u32(V::kType, type);
        writer.u16(V::kFlags, stored.compressed ? V::kFlagCompressedName : 0);
        writer.bytes(V::kName, stored.bytes);
        if (!writer.ok())
            return std::nullopt;
        // The value list grows by one: in place when its cell has room.
        const std::uint32_t count = record->valueCount;
        std::uint32_t list = record->valueList;
        const auto oldList = count ? cells_.cell(list) : std::nullopt;
        if (count && !oldList)
            return std::nullopt;
        if (!oldList || oldList->size() < 4 * (count + 1)) {
            const auto grown = cells_.allocate(4 * (count + 1));
            if (!grown)
                return std::nullopt;
            if (oldList) {
                std::memcpy(cells_.writable(*grown).data(), oldList->data(), 4 * count);
                cells_.release(list);
            }
            list = *grown;
        }
        ByteWriter(cells_.writable(list)).u32(4 * count, *vk);
        ByteWriter nk(cells_.writable(key));
        nk.u32(K::kValueCount, count + 1);
        nk.u32(K::kValueList, list);
        (void)nk.ok();
        auto keyCell = cells_.writable(key);
        ByteView view(keyCell);
        const std::uint32_t longestName = view.u32(K::kMaxValueNameLength);
        (void)view.ok();
        if (2 * stored.units > longestName)
            ByteWriter(keyCell).u32(K::kMaxValueNameLength, std::uint32_t(2 * stored.units));
        offset = vk;
    }
    auto keyCell = cells_.writable(key);
    ByteView view(keyCell);
    const std::uint32_t longestData = view.u32(K::kMaxValueDataLength);
    (void)view.ok();
    if (data.size() > longestData)
        ByteWriter(keyCell).u32(K::kMaxValueDataLength, std::uint32_t(data.size()));
    return offset;
}

bool Hive::deleteValue(std::uint32_t key, std::uint32_t value)
{
    const auto record = readKey(cells_, key);
    const auto values = record ? readValueList(cells_, *record) : std::nullopt;
    const auto vk = readValue(cells_, value);
    if (!values || !vk)
        return false;
    const auto at = std::find(values->begin(), values->end(), value);
    if (at == values->end()) {
        Error::set(Error::PathNotFound, "the value is not one of the key's");
        return false;
    }
    const auto index = std::size_t(at - values->begin());
    const auto count = std::uint32_t(values->size() - 1);
    if (count == 0) {
        cells_.release(record->valueList);
    } else {
        ByteWriter list(cells_.writable(record->valueList));
        for (std::size_t i = index; i < count; ++i)
            list.u32(4 * i, (*values)[i + 1]);
        (void)list.ok();
    }
    ByteWriter nk(cells_.writable(key));
    nk.u32(K::kValueCount, count);
    nk.u32(K::kValueList, count ? record->valueList : Layout::kNoCell);
    (void)nk.ok();
    releaseData(*vk);
    cells_.release(value);
    released_.push_back(value);
    return true;
}

bool Hive::patchData(std::uint32_t value, std::size_t position, std::span<const std::uint8_t> bytes)
{
    const auto vk = readValue(cells_, value);
    if (!vk)
        return false;
    if (position > vk->dataSize || bytes.size() > vk->dataSize - position) {
        Error::set(Error::Invalid, "a write past the end of the value's data");
        return false;
    }
    if (bytes.empty())
        return true;
    if (vk->inlineData) {
        std::uint32_t field = vk->dataField;
        std::memcpy(reinterpret_cast<std::uint8_t*>(&field) + position, bytes.data(), bytes.size());
        ByteWriter writer(cells_.writable(value));
        writer.u32(V::kData, field);
        return writer.ok();
    }
    if (!bigData(*vk)) {
        auto cell = cells_.writable(vk->dataField);
        if (cell.size() < vk->dataSize)
            return false;
        std::memcpy(cell.data() + position, bytes.data(), bytes.size());
        return true;
    }
    ByteView db(*cells_.cell(vk->dataField));
    const std::uint32_t listCell = db.u32(D::kSegmentList);
    const std::uint16_t count = db.u16(D::kSegmentCount);
    const auto list = db.ok() ? cells_.cell(listCell) : std::nullopt;
    if (!list || list->size() < 4u * count)
        return false;
    const std::vector<std::uint8_t> segments(list->begin(), list->end());
    for (std::size_t done = 0; done < bytes.size();) {
        const std::size_t at = position + done;
        const std::size_t index = at / D::kSegmentBytes;
        if (index >= count)
            return false;
        ByteView entries(segments);
        auto segment = cells_.writable(entries.u32(4 * index));
        if (!entries.ok())
            return false;
        const std::size_t inside = at % D::kSegmentBytes;
        if (segment.size() <= inside)
            return false;
        const std::size_t take =
            std::min({bytes.size() - done, segment.size() - inside, std::size_t(D::kSegmentBytes) - inside});
        std::memcpy(segment.data() + inside, bytes.data() + done, take);
        done += take;
    }
    return true;
}

} // namespace Platform::Hive
