#include "platform/windows/adjust_volumes.h"

#include "platform/windows/bcd_device.h"
#include "platform/windows/bcd_store.h"
#include "platform/windows/log_channel.h"
#include "platform/windows/mounted_devices.h"
#include "platform/windows/system_hives.h"

namespace Platform::Windows {

namespace {

using Hive::KeyNode;
using Hive::ValueNode;

constexpr std::uint32_t kBinary = 3;

bool validDiskId(const Ref<ByteArray>& id)
{
    return id && (id->size() == kMbrDiskIdSize || id->size() == kGptIdSize);
}

bool validPartitionKey(const Ref<ByteArray>& key)
{
    return key && (key->size() == kByteOffsetSize || key->size() == kGptIdSize);
}

VolumeIdentity::Bytes bytesOf(const Ref<ByteArray>& array)
{
    return {array->bytes().begin(), array->bytes().end()};
}

template <class Node, class Iterator>
std::vector<Ref<Node>> collect(const Ref<Iterator>& iterator)
{
    std::vector<Ref<Node>> nodes;
    if (iterator)
        while (auto node = iterator->next())
            nodes.push_back(std::move(node));
    return nodes;
}

// The device elements of every object: where the store names partitions.
std::vector<Ref<ValueNode>> deviceElements(KeyNode& objects)
{
    std::vector<Ref<ValueNode>> found;
    for (const auto& object : collect<KeyNode>(objects.subkeys())) {
        const auto elements = object->subkey("Elements");
        if (!elements)
            continue;
        for (const auto& element : collect<KeyNode>(elements->subkeys()))
            if (elementFormat(element->name()) == ElementFormat::Device)
                if (auto value = element->value("Element"); value && value->type() == kBinary)
                    found.push_back(std::move(value));
    }
    return found;
}

} // namespace

Ref<AdjustWindowsVolumes> AdjustWindowsVolumes::create(const Ref<ByteArray>& fromDisk, const Ref<ByteArray>& toDisk)
{
    if (!validDiskId(fromDisk) || !validDiskId(toDisk))
        return nullptr;
    return makeRef<AdjustWindowsVolumes>(bytesOf(fromDisk), bytesOf(toDisk));
}

bool AdjustWindowsVolumes::addMapping(const Ref<ByteArray>& fromPartition, const Ref<ByteArray>& toPartition,
                                      const Ref<ByteArray>& fromDisk, const Ref<ByteArray>& toDisk)
{
    if (!validPartitionKey(fromPartition) || !validPartitionKey(toPartition) || !validDiskId(fromDisk) ||
        !validDiskId(toDisk))
        return false;
    // A key's size says its style, and must agree with its disk's.
    if ((fromPartition->size() == kGptIdSize) != (fromDisk->size() == kGptIdSize) ||
        (toPartition->size() == kGptIdSize) != (toDisk->size() == kGptIdSize))
        return false;
    mappings_.push_back({{bytesOf(fromDisk), bytesOf(fromPartition)}, {bytesOf(toDisk), bytesOf(toPartition)}});
    return true;
}

std::optional<VolumeIdentity> AdjustWindowsVolumes::map(const VolumeIdentity& old) const
{
    // A GPT drive-letter record names no disk: its partition GUID alone says which.
    for (const auto& mapping : mappings_) {
        if (mapping.from.partition != old.partition || (!old.disk.empty() && old.disk != mapping.from.disk))
            continue;
        VolumeIdentity now = mapping.to;
        if (old.disk.empty() && now.gpt())
            now.disk.clear();
        return now == old ? std::nullopt : std::optional(now);
    }
    // A partition that did not move keeps its key; only its disk's id changes, within one style.
    if (old.disk.empty() || old.disk != fromDisk_ || old.gpt() != (toDisk_.size() == kGptIdSize))
        return std::nullopt;
    VolumeIdentity now{toDisk_, old.partition};
    return now == old ? std::nullopt : std::optional(now);
}

bool AdjustWindowsVolumes::adjustBcd(const Ref<Filesys>& fs)
{
    if (!fs)
        return false;
    const auto stores = findBootStores(*fs);
    bool ok = !stores.empty();
    for (const auto& path : stores)
        ok = adjustStore(fs, path) && ok;
    return ok;
}

bool AdjustWindowsVolumes::adjustStore(const Ref<Filesys>& fs, const std::string& path)
{
    const auto store = Utils::openMachineHive(fs, path, true);
    const auto objects = store && store->writable() ? store->root()->subkey("Objects") : nullptr;
    if (!objects) {
        LogMessage(channel(), LogError) << "Could not open the boot configuration store " << path;
        return false;
    }
    for (const auto& value : deviceElements(*objects)) {
        auto data = value->data();
        if (!data)
            continue;
        bool changed = false;
        for (const std::size_t body : partitionRecords(*data))
            if (const auto now = map(readPartitionRecord(*data, body)))
                changed = writePartitionRecord(*data, body, *now) || changed;
        if (changed && !value->setData(kBinary, *data)) {
            LogMessage(channel(), LogError) << "Could not rewrite a device element in " << path;
            return false;
        }
    }
    if (!store->flush()) {
        LogMessage(channel(), LogError) << "Could not write the boot configuration store " << path;
        return false;
    }
    LogMessage(channel(), LogDetail) << "Adjusted the boot configuration store " << path;
    return true;
}

bool AdjustWindowsVolumes::adjustMountedDevices(const Ref<Filesys>& fs, const Ref<Object>& /*options*/)
{
    const auto path = fs ? Utils::findSystemRegistryHive(*fs) : std::nullopt;
    if (!path)
        return false;
    const auto hive = Utils::openMachineHive(fs, *path, true);
    if (!hive || !hive->writable()) {
        LogMessage(channel(), LogError) << "Could not open hive " << *path;
        return false;
    }
    const auto records = hive->root()->subkey("MountedDevices");
    if (!records)
        return false;
    for (const auto& value : collect<ValueNode>(records->values())) {
        const auto data = value->type() == kBinary ? value->data() : std::nullopt;
        const auto old = data ? identityOf(decodeMountedDevice(*data)) : std::nullopt;
        const auto now = old ? map(*old) : std::nullopt;
        if (!now)
            continue;
        if (!value->setData(kBinary, encodeMountedDevice(*now))) {
            LogMessage(channel(), LogError) << "Could not rewrite " << value->name() << " in " << *path;
            return false;
        }
        LogMessage(channel(), LogDetail) << value->name() << ": " << describeIdentity(*old) << " -> "
                                         << describeIdentity(*now);
    }
    if (!hive->flush()) {
        LogMessage(channel(), LogError) << "Could not write hive " << *path;
        return false;
    }
    return true;
}

} // namespace Platform::Windows
