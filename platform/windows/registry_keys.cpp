#include "platform/windows/registry_keys.h"

#include "platform/windows/log_channel.h"

#include <memory>

namespace Platform::Windows {

namespace {

using Platform::Hive::ValueNode;

constexpr std::size_t kMaxString = 0x10000;
constexpr std::size_t kChunk = 0x10000;

bool fail(const std::string& message)
{
    LogMessage(channel(), LogError) << message;
    return false;
}

// Binary data through one buffer of kChunk bytes, whatever the value's size.
bool copyBinary(ValueNode& source, ValueNode& destination, const std::string& keyName)
{
    const auto from = source.stream();
    const auto to = destination.stream();
    const std::string name = source.name();
    const std::uint64_t size = from ? from->size() : 0;
    if (!from || !to || to->resize(size) != size)
        return fail("Failed to resize binary value of " + name);
    const auto buffer = std::make_unique<std::uint8_t[]>(kChunk);
    for (std::uint64_t remaining = size; remaining > 0;) {
        const std::uint64_t chunk = std::min<std::uint64_t>(remaining, kChunk);
        if (from->read(buffer.get(), chunk) != chunk)
            return fail("Failed to read data of binary value of " + name + " in " + keyName);
        if (to->write(buffer.get(), chunk) != chunk)
            return fail("Failed to write data of binary value of " + name + " in " + keyName);
        remaining -= chunk;
    }
    return true;
}

bool copyData(ValueNode& source, ValueNode& destination, const std::string& keyName)
{
    const std::uint32_t type = source.type();
    switch (type) {
    case 0:
        return true;
    case 1:
    case 2: {
        const auto text = source.getString(kMaxString);
        return (text && destination.setString(*text)) || fail("Failed to set string value of " + source.name());
    }
    case 4:
    case 5:
    case 11:
        return destination.setNumber(std::uint64_t(source.getNumber())) ||
               fail("Failed to set number value of " + source.name());
    case 7: {
        const auto strings = source.getMultiString(kMaxString);
        return (strings && destination.setMultiString(*strings)) ||
               fail("Failed to set multi string value of " + source.name());
    }
    case 3:
        return copyBinary(source, destination, keyName);
    default:
        return fail("Unsupported value type " + std::to_string(type) + " of " + source.name());
    }
}

} // namespace

bool copyRegistryKey(const Ref<KeyNode>& source, const Ref<KeyNode>& destination)
{
    const auto subkeys = source->subkeys();
    if (!subkeys)
        return fail("Failed to retrieve key iterator for " + source->name());
    while (const auto child = subkeys->next()) {
        const auto copy = destination->createKey(child->name());
        if (!copy)
            return fail("Failed to create key " + child->name() + " in " + destination->name());
        if (!copyRegistryKey(child, copy))
            return fail("Failed to copy key " + child->name() + " to " + copy->name());
    }
    const auto values = source->values();
    if (!values)
        return fail("Failed to retrieve value iterator for " + source->name());
    while (const auto value = values->next()) {
        const auto copy = destination->createValue(value->name(), value->type());
        if (!copy)
            return fail("Failed to create value " + value->name() + " in " + destination->name());
        if (!copyData(*value, *copy, source->name()))
            return false;
    }
    return true;
}

bool deleteRegistryKey(const Ref<KeyNode>& parent, const Ref<KeyNode>& key)
{
    const auto subkeys = key->subkeys();
    if (!subkeys)
        return fail("Failed to retrieve key iterator for deletion of " + key->name());
    while (const auto child = subkeys->next())
        if (!deleteRegistryKey(key, child))
            return fail("Failed to remove key " + child->name());
    const auto values = key->values();
    if (!values)
        return fail("Failed to retrieve value iterator for deletion of " + key->name());
    while (const auto value = values->next())
        if (!key->deleteValue(value))
            return fail("Failed to delete value " + value->name() + " from key " + key->name());
    return parent->removeKey(key);
}

} // namespace Platform::Windows
