#include "platform/windows/bcd_listing.h"

#include "platform/core/bytes.h"
#include "platform/windows/bcd_store.h"

namespace Platform::Windows {

namespace {

using Hive::KeyNode;
using Hive::ValueNode;

constexpr std::size_t kMaxText = 0x8000;

std::vector<Ref<KeyNode>> children(KeyNode& key)
{
    std::vector<Ref<KeyNode>> found;
    if (const auto iterator = key.subkeys())
        while (auto child = iterator->next())
            found.push_back(std::move(child));
    return found;
}

std::vector<std::uint64_t> littleEndianWords(const std::vector<std::uint8_t>& data)
{
    std::vector<std::uint64_t> words;
    ByteView view(data);
    for (std::size_t at = 0; at + 8 <= data.size(); at += 8)
        words.push_back(view.u64(at));
    return view.ok() ? words : std::vector<std::uint64_t>{};
}

void decode(ValueNode& value, ElementListing& element)
{
    const auto data = value.data().value_or(std::vector<std::uint8_t>{});
    switch (element.format.value_or(ElementFormat(0))) {
    case ElementFormat::String:
    case ElementFormat::Object:
        element.text = value.getString(kMaxText);
        return;
    case ElementFormat::ObjectList:
        element.objects = value.getMultiString(kMaxText).value_or(std::vector<std::string>{});
        return;
    case ElementFormat::Integer:
        if (const auto words = littleEndianWords(data); words.size() == 1)
            element.integer = words.front();
        else if (data.size() == 4 || data.size() == 1) // short forms some tools write
            element.integer = data.size() == 1 ? data[0] : std::uint64_t(value.getNumber());
        break;
    case ElementFormat::Boolean:
        if (!data.empty())
            element.boolean = data[0] != 0;
        return;
    case ElementFormat::IntegerList:
        element.integers = littleEndianWords(data);
        return;
    case ElementFormat::Device:
        element.device = decodeBootDevice(data);
        break;
    }
    if (!element.integer && !element.device)
        element.data = data;
}

ObjectListing listObject(KeyNode& object)
{
    ObjectListing listing{object.name(), wellKnownObjectName(object.name()), std::nullopt, {}};
    if (const auto description = object.subkey("Description"))
        if (const auto type = description->value("Type"); type && (type->type() == 4 || type->type() == 5))
            listing.type = std::uint32_t(type->getNumber());
    const auto elements = object.subkey("Elements");
    for (const auto& key : elements ? children(*elements) : std::vector<Ref<KeyNode>>{}) {
        ElementListing element;
        element.id = key->name();
        element.format = elementFormat(element.id);
        if (const auto value = key->value("Element"))
            decode(*value, element);
        listing.elements.push_back(std::move(element));
    }
    return listing;
}

} // namespace

std::optional<std::vector<ObjectListing>> listBootStore(Hive::HiveFile& store)
{
    const auto objects = store.root() ? store.root()->subkey("Objects") : nullptr;
    if (!objects)
        return std::nullopt;
    std::vector<ObjectListing> listing;
    for (const auto& object : children(*objects))
        listing.push_back(listObject(*object));
    return listing;
}

} // namespace Platform::Windows
