#include "cli/bcd_command.h"

#include "cli/terminal.h"
#include "platform/core/string_util.h"
#include "platform/partman/partition_manager.h"
#include "platform/storage/file_storage.h"
#include "platform/storage/window_storage.h"
#include "platform/windows/bcd_listing.h"
#include "platform/windows/bcd_store.h"
#include "platform/windows/system_hives.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

namespace Cli {

namespace {

using namespace Platform;
using namespace Platform::Windows;
using Json = nlohmann::ordered_json;

constexpr int kUnreadable = 1;
constexpr int kUsage = 2;
constexpr const char* kUsageText = "usage: postclone bcd show [--json] TARGET [PARTITION]";

int failure(int code, const std::string& message)
{
    std::fprintf(stderr, "postclone: %s\n", message.c_str());
    return code;
}

std::string hex(std::uint64_t value, unsigned width)
{
    return "0x" + StrConv::str(value, 16, width);
}

// The number (as Linux counts) of the target's partition that a device names, or 0.
unsigned partitionOnTarget(const PartitionManager& table, std::uint32_t sectorSize, const VolumeIdentity& identity)
{
    const auto diskId = table.diskId();
    for (std::size_t i = 0; i < table.partitionCount(); ++i) {
        const auto partition = table.partition(i);
        const bool same =
            identity.gpt()
                ? std::equal(identity.partition.begin(), identity.partition.end(), partition->uuid().begin())
                : identity.disk == std::vector<std::uint8_t>(diskId->bytes().begin(), diskId->bytes().end()) &&
                      identity.partition == [&] {
                          std::vector<std::uint8_t> offset(8);
                          const std::uint64_t bytes = partition->start() * sectorSize;
                          for (std::size_t b = 0; b < 8; ++b)
                              offset[b] = std::uint8_t(bytes >> (8 * b));
                          return offset;
                      }();
        if (same)
            return partition->entryIndex() + 1;
    }
    return 0;
}

const char* deviceKind(const BootDevice& device)
{
    if (device.ramdisk)
        return "ramdisk";
    switch (DeviceType(device.type)) {
    case DeviceType::Partition:
        return "partition";
    case DeviceType::Boot:
        return "boot";
    case DeviceType::Locate:
        return "locate";
    case DeviceType::Block:
        return "block";
    }
    return "other";
}

struct Context {
    Ref<PartitionManager> table;
    std::uint32_t sectorSize;
};

Json deviceJson(const BootDevice& device, const Context& context)
{
    Json json{{"kind", deviceKind(device)}, {"type", device.type}};
    if (device.options != Guid{})
        json["options"] = "{" + StringUtil::lower(guidToText(device.options)) + "}";
    if (device.location) {
        json["location"] = describeIdentity(*device.location);
        const unsigned number =
            context.table ? partitionOnTarget(*context.table, context.sectorSize, *device.location) : 0;
        json["target_partition"] = number ? Json(number) : Json();
    }
    if (!device.imagePath.empty())
        json["image"] = device.imagePath;
    return json;
}

Json elementJson(const ElementListing& element, const Context& context)
{
    Json json{{"id", element.id}};
    if (element.text)
        json["value"] = *element.text;
    else if (!element.objects.empty())
        json["value"] = element.objects;
    else if (element.integer)
        json["value"] = *element.integer;
    else if (element.boolean)
        json["value"] = *element.boolean;
    else if (!element.integers.empty())
        json["value"] = element.integers;
    else if (element.device)
        json["value"] = deviceJson(*element.device, context);
    else {
        std::string bytes;
        for (const auto byte : element.data)
            bytes += StrConv::str(byte, 16, 2);
        json["value"] = bytes;
    }
    return json;
}

std::string valueText(const Json& value)
{
    if (value.is_string())
        return value.get<std::string>();
    if (value.is_boolean())
        return value.get<bool>() ? "yes" : "no";
    if (value.is_array()) {
        std::string text;
        for (const auto& item : value)
            text += (text.empty() ? "" : ", ") + valueText(item);
        return text;
    }
    if (value.is_object()) {
        std::string text = value["kind"].get<std::string>();
        if (value.contains("location"))
            text += " " + value["location"].get<std::string>() +
                    (value["target_partition"].is_null()
                         ? " (not on this disk)"
                         : " (partition " + std::to_string(value["target_partition"].get<unsigned>()) + ")");
        if (value.contains("image"))
            text += " image " + value["image"].get<std::string>();
        return text;
    }
    return value.dump();
}

Json objectJson(const ObjectListing& object, const Context& context)
{
    Json elements = Json::array();
    for (const auto& element : object.elements)
        elements.push_back(elementJson(element, context));
    return {{"guid", object.guid},
            {"name", object.name.empty() ? Json() : Json(object.name)},
            {"type", object.type ? Json(hex(*object.type, 8)) : Json()},
            {"type_name", object.type ? Json(objectTypeName(*object.type)) : Json()},
            {"elements", elements}};
}

std::string storeText(const std::string& target, const Json& store)
{
    std::ostringstream out;
    out << target << " partition " << store["partition"].get<unsigned>() << ": " << store["path"].get<std::string>()
        << "\n";
    for (const auto& object : store["objects"]) {
        out << "  " << object["guid"].get<std::string>();
        if (!object["name"].is_null())
            out << " " << object["name"].get<std::string>();
        if (!object["type"].is_null())
            out << "  " << object["type"].get<std::string>() << " " << object["type_name"].get<std::string>();
        out << "\n";
        for (const auto& element : object["elements"])
            out << "    " << element["id"].get<std::string>() << "  " << valueText(element["value"]) << "\n";
    }
    return out.str();
}

} // namespace

int runBcdCommand(int argc, char** argv)
{
    std::vector<std::string> args(argv + 2, argv + argc);
    if (args.empty() || args.front() != "show")
        return failure(kUsage, kUsageText);
    args.erase(args.begin());
    const bool json = !args.empty() && args.front() == "--json";
    if (json)
        args.erase(args.begin());
    unsigned only = 0;
    if (args.empty() || args.size() > 2 || (args.size() == 2 && (!StrConv::num(args[1], only) || only == 0)))
        return failure(kUsage, kUsageText);
    SysLogStream::install(std::make_shared<StderrLog>());
    SysLogFilter::setLevel(LogWarning);
    const std::string& target = args.front();
    const auto disk = FileStorage::open(target, Access::ReadOnly);
    if (!disk)
        return failure(kUnreadable, "cannot open target '" + target + "'");
    const Context context{PartitionManager::create(disk, disk->elementSize()), disk->elementSize()};
    Json stores = Json::array();
    std::string text;
    for (std::size_t i = 0; context.table && i < context.table->partitionCount(); ++i) {
        const auto partition = context.table->partition(i);
        const unsigned number = partition->entryIndex() + 1;
        if (only && number != only)
            continue;
        const auto fs =
            Filesys::create(WindowStorage::create(disk, partition->start(), partition->size()), 0, Access::ReadOnly);
        for (const auto& path : fs ? findBootStores(*fs) : std::vector<std::string>{}) {
            const auto hive = Utils::openMachineHive(fs, path, false);
            const auto listing = hive ? listBootStore(*hive) : std::nullopt;
            if (!listing) {
                std::fprintf(stderr, "postclone: %s partition %u: %s is no boot configuration store\n", target.c_str(),
                             number, path.c_str());
                continue;
            }
            Json objects = Json::array();
            for (const auto& object : *listing)
                objects.push_back(objectJson(object, context));
            Json store{{"partition", number}, {"path", path}, {"objects", objects}};
            text += storeText(target, store);
            stores.push_back(std::move(store));
        }
    }
    if (stores.empty())
        text += target + ": no boot configuration store found\n";
    const std::string output = json ? Json{{"target", target}, {"stores", stores}}.dump(2) + "\n" : text;
    std::fputs(output.c_str(), stdout);
    return 0;
}

} // namespace Cli
