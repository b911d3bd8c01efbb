#include "cli/windows_command.h"

#include "cli/step_names.h"
#include "cli/terminal.h"
#include "platform/core/string_util.h"
#include "platform/partman/partition_manager.h"
#include "platform/storage/file_storage.h"
#include "platform/storage/window_storage.h"
#include "postprocessing/windows/windows_info.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace Cli {

namespace {

using namespace Platform;
using Libraries::KRO::PostProcessing::Windows::WindowsInfo;
using Json = nlohmann::ordered_json;
using Platform::Windows::MountedDevice;

constexpr int kDone = 0;
constexpr int kUnreadable = 1;
constexpr int kUsage = 2;
constexpr const char* kUsageText = "usage: postclone windows info [--json] TARGET...";

struct Found {
    unsigned partition; // as Linux numbers it
    WindowsInfo info;
};

// Every partition that holds Windows, or is encrypted and might.
std::optional<std::vector<Found>> findWindows(const std::string& target)
{
    const auto disk = FileStorage::open(target, Access::ReadOnly);
    if (!disk)
        return std::nullopt;
    std::vector<Found> found;
    const auto table = PartitionManager::create(disk, disk->elementSize());
    for (std::size_t i = 0; table && i < table->partitionCount(); ++i) {
        const auto partition = table->partition(i);
        const auto storage = WindowStorage::create(disk, partition->start(), partition->size());
        const auto fs = Filesys::create(storage, 0, Access::ReadOnly);
        if (auto info = Libraries::KRO::PostProcessing::Windows::describeWindows(fs, storage))
            found.push_back({partition->entryIndex() + 1, std::move(*info)});
    }
    return found;
}

std::string hex(std::uint64_t value, unsigned width)
{
    return StrConv::str(value, 16, width);
}

Json deviceJson(const MountedDevice& device)
{
    switch (device.form) {
    case MountedDevice::Form::MbrPartition:
        return {{"form", "mbr"}, {"disk_signature", hex(device.diskSignature, 8)}, {"offset", device.byteOffset}};
    case MountedDevice::Form::GptPartition:
        return {{"form", "gpt"}, {"partition_guid", guidToText(device.partitionGuid)}};
    case MountedDevice::Form::DevicePath:
        break;
    }
    return {{"form", "device"}, {"path", device.devicePath}};
}

std::string deviceText(const MountedDevice& device)
{
    switch (device.form) {
    case MountedDevice::Form::MbrPartition:
        return "MBR disk " + hex(device.diskSignature, 8) + " offset " + std::to_string(device.byteOffset);
    case MountedDevice::Form::GptPartition:
        return "GPT partition " + guidToText(device.partitionGuid);
    case MountedDevice::Form::DevicePath:
        break;
    }
    return "device " + device.devicePath;
}

Json optionalJson(const auto& value)
{
    return value ? Json(*value) : Json();
}

Json windowsJson(const Found& found)
{
    const WindowsInfo& info = found.info;
    Json json{{"partition", found.partition}, {"bitlocker", info.state.encrypted}};
    if (info.state.encrypted)
        return json;
    Json product;
    if (info.system)
        product = {{"name", info.system->name},
                   {"version", std::to_string(info.system->major) + "." + std::to_string(info.system->minor)},
                   {"build", info.system->build}};
    Json drivers = Json::object();
    for (const auto& group : info.drivers) {
        Json starts = Json::object();
        for (const auto& driver : group.drivers)
            starts[driver.service] = optionalJson(driver.start);
        drivers[std::string(stepName(group.step))] = starts;
    }
    Json records = Json::array();
    for (const auto& record : info.mountedDevices) {
        Json entry{{"name", record.name}};
        entry.update(deviceJson(record.device));
        records.push_back(entry);
    }
    json.update(Json{{"product", product},
                     {"system_hive", info.systemHive},
                     {"control_set", optionalJson(info.controlSet)},
                     {"computer_name", info.computerName},
                     {"host_name", info.hostName},
                     {"drivers", drivers},
                     {"hibernation", info.state.hibernation.empty() ? Json() : Json(info.state.hibernation)},
                     {"hiberfile_size", optionalJson(info.hiberfileSize)},
                     {"ntfs_log_clean", optionalJson(info.state.logClean)},
                     {"boot_status", optionalJson(info.bootStatus)},
                     {"update_client_id", info.updateClientId},
                     {"mounted_devices", records}});
    return json;
}

std::string windowsText(const std::string& target, const Found& found)
{
    const WindowsInfo& info = found.info;
    std::ostringstream out;
    out << target << " partition " << found.partition << ": ";
    if (info.state.encrypted) {
        out << "encrypted with BitLocker; nothing inside can be read\n";
        return out.str();
    }
    if (info.system)
        out << info.system->name << " " << info.system->major << "." << info.system->minor << " build "
            << info.system->build << "\n";
    else
        out << "Windows (no SOFTWARE hive names the product)\n";
    out << "  system hive: " << info.systemHive << "\n";
    if (info.controlSet)
        out << "  control set: ControlSet" << StrConv::str(std::uint64_t(*info.controlSet), 10, 3) << "\n";
    out << "  computer name: " << info.computerName << " (NV Hostname: " << info.hostName << ")\n";
    out << "  storage drivers (Start: 0 boot, 3 on demand, 4 disabled, - no service):\n";
    for (const auto& group : info.drivers) {
        out << "    " << stepName(group.step) << ":";
        for (const auto& driver : group.drivers)
            out << " " << driver.service << "=" << (driver.start ? std::to_string(*driver.start) : "-");
        out << "\n";
    }
    out << "  hibernation: "
        << (info.state.hibernation.empty() ? "none" : "hibernated (\"" + info.state.hibernation + "\")");
    if (info.hiberfileSize)
        out << ", hiberfil.sys " << *info.hiberfileSize << " bytes";
    out << "\n  NTFS log: "
        << (!info.state.logClean   ? "unknown"
            : *info.state.logClean ? "clean"
                                   : "NOT clean")
        << "\n";
    out << "  last shutdown (bootstat.dat byte 11): "
        << (!info.bootStatus        ? "no bootstat.dat"
            : *info.bootStatus == 1 ? "1, clean"
                                    : std::to_string(*info.bootStatus))
        << "\n";
    out << "  BitLocker: no\n";
    out << "  update client id: " << (info.updateClientId ? "present" : "none") << "\n";
    out << "  mounted devices:\n";
    for (const auto& record : info.mountedDevices)
        out << "    " << record.name << " = " << deviceText(record.device) << "\n";
    return out.str();
}

int failure(int code, const std::string& message)
{
    std::fprintf(stderr, "postclone: %s\n", message.c_str());
    return code;
}

} // namespace

int runWindowsCommand(int argc, char** argv)
{
    std::vector<std::string> args(argv + 2, argv + argc);
    if (args.empty() || args.front() != "info")
        return failure(kUsage, kUsageText);
    args.erase(args.begin());
    const bool json = !args.empty() && args.front() == "--json";
    if (json)
        args.erase(args.begin());
    if (args.empty())
        return failure(kUsage, kUsageText);
    // Log lines go to stderr, so that stdout holds only the listing (or the JSON object).
    SysLogStream::install(std::make_shared<StderrLog>());
    SysLogFilter::setLevel(LogWarning);
    Json targets = Json::array();
    std::string text;
    int status = kDone;
    for (const auto& target : args) {
        const auto found = findWindows(target);
        if (!found) {
            status = failure(kUnreadable, "cannot open target '" + target + "'");
            continue;
        }
        Json windows = Json::array();
        for (const auto& each : *found) {
            windows.push_back(windowsJson(each));
            text += windowsText(target, each);
        }
        if (found->empty())
            text += target + ": no Windows found\n";
        targets.push_back(Json{{"target", target}, {"windows", windows}});
    }
    const std::string output = json ? Json{{"targets", targets}}.dump(2) + "\n" : text;
    std::fputs(output.c_str(), stdout);
    return status;
}

} // namespace Cli
