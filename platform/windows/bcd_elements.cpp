#include "platform/windows/bcd_elements.h"

#include "platform/core/error.h"
#include "platform/windows/bcd_device.h"
#include "platform/windows/log_channel.h"
#include "platform/windows/registry_keys.h"

namespace Platform::Windows {

namespace {

constexpr std::uint32_t kString = 1;
constexpr std::uint32_t kBinary = 3;
constexpr const char* kElements = "Elements";
constexpr const char* kElementValue = "Element";

LogMessage error()
{
    return LogMessage(channel(), LogError);
}

std::string errorCode()
{
    return std::to_string(Error::get());
}

// The object's type number, or nothing (logged) when it cannot be read as one.
std::optional<std::uint32_t> objectType(KeyNode& object)
{
    const std::string name = object.name();
    const auto description = object.subkey("Description");
    if (!description) {
        error() << "Failed to retrieve Description key in " << name << "; error: " << errorCode();
        return std::nullopt;
    }
    const auto type = description->value("Type");
    if (!type) {
        error() << "Failed to retrieve Type value in " << name << "; error: " << errorCode();
        return std::nullopt;
    }
    if (type->type() != 4 && type->type() != 5) {
        error() << "Type value has unexpected type " << type->type() << " in " << name;
        return std::nullopt;
    }
    return std::uint32_t(type->getNumber());
}

Ref<KeyNode> elementsOf(const Ref<KeyNode>& key)
{
    if (key->name() == kElements)
        return key;
    const auto elements = key->subkey(kElements);
    if (!elements)
        error() << "No Elements key in " << key->name();
    return elements;
}

} // namespace

std::vector<std::string> findResumeObjects(const Ref<KeyNode>& objects)
{
    std::vector<std::string> found;
    const auto children = objects->subkeys();
    if (!children) {
        error() << "Failed to retrieve key iterator for Objects; error: " << errorCode();
        return found;
    }
    while (const auto object = children->next())
        if (objectType(*object) == kResumeObjectType)
            found.push_back(object->name());
    return found;
}

Ref<ValueNode> createElement(const Ref<KeyNode>& key, const std::string& elementId, std::uint32_t type)
{
    const auto elements = key->name() == kElements ? key : key->createKey(kElements);
    if (!elements) {
        error() << "Failed to create Elements key in " << key->name();
        return nullptr;
    }
    const auto element = elements->createKey(elementId);
    if (!element) {
        error() << "Failed to create key " << elementId;
        return nullptr;
    }
    auto value = element->createValue(kElementValue, type);
    if (!value)
        error() << "Failed to create Element value in " << elementId;
    return value;
}

Ref<KeyNode> getElementKey(const Ref<KeyNode>& key, const std::string& elementId)
{
    const auto elements = elementsOf(key);
    if (!elements)
        return nullptr;
    auto element = elements->subkey(elementId);
    if (!element)
        error() << "Failed to retrieve key " << elementId;
    return element;
}

Ref<ValueNode> getStringElement(const Ref<KeyNode>& object, const std::string& elementId)
{
    const auto element = getElementKey(object, elementId);
    if (!element) {
        error() << "Failed to retrieve key " << elementId;
        return nullptr;
    }
    const auto value = element->value(kElementValue);
    if (!value) {
        error() << "Failed to retrieve Element value in " << elementId;
        return nullptr;
    }
    if (value->type() != kString) {
        error() << "Unexpected type of Element value in " << elementId << ": expected " << kString << ", got "
                << value->type();
        return nullptr;
    }
    return value;
}

bool renameElement(const Ref<KeyNode>& object, const std::string& oldId, const std::string& newId)
{
    const auto element = getElementKey(object, oldId);
    if (!element)
        return false;
    if (!element->rename(newId)) {
        error() << "Failed to rename " << oldId << " to " << newId << "; error: " << errorCode();
        return false;
    }
    return true;
}

bool setPartitionDeviceElement(const Ref<KeyNode>& object, const std::string& elementId, const Ref<ByteArray>& diskId,
                               const Ref<ByteArray>& partitionId)
{
    const auto value = createElement(object, elementId, kBinary);
    if (!value) {
        error() << "Failed to create Element value";
        return false;
    }
    const bool partitionValid = partitionId && partitionId->size() == kGptIdSize;
    const bool diskValid = diskId && diskId->size() == kGptIdSize;
    if (!partitionValid)
        LogMessage(channel(), LogWarning) << "Invalid EFI partition ID";
    if (!diskValid)
        LogMessage(channel(), LogWarning) << "Invalid disk GPT ID";
    const auto record = gptPartitionDevice(partitionValid ? partitionId->bytes() : std::span<const std::uint8_t>{},
                                           diskValid ? diskId->bytes() : std::span<const std::uint8_t>{});
    const auto stream = value->stream();
    if (!stream || stream->resize(record.size()) != record.size()) {
        error() << "Failed to resize device node data";
        return false;
    }
    if (!stream->seek(0) || stream->write(record.data(), record.size()) != record.size()) {
        error() << "Failed to write device node data";
        return false;
    }
    return true;
}

Ref<KeyNode> copyObject(const Ref<KeyNode>& objects, const Ref<KeyNode>& source, const std::string& name)
{
    const auto copy = objects->createKey(name);
    if (!copy) {
        error() << "Failed to create key " << name;
        return nullptr;
    }
    if (!copyRegistryKey(source, copy)) {
        error() << "Failed to copy key " << source->name() << " to " << name;
        return nullptr;
    }
    return copy;
}

} // namespace Platform::Windows
