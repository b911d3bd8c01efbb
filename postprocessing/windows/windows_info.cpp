#include "postprocessing/windows/windows_info.h"

#include "platform/hive/hive_file.h"
#include "platform/windows/system_hives.h"
#include "postprocessing/windows/storage_drivers.h"
#include "postprocessing/windows/system_hive.h"

namespace Libraries::KRO::PostProcessing::Windows {

namespace {

using Platform::Hive::HiveFile;

constexpr std::size_t kMaxName = 256;

std::string textAt(const Ref<KeyNode>& from, const std::string& path, const std::string& name)
{
    const auto key = from ? from->find(path) : nullptr;
    const auto value = key ? key->value(name) : nullptr;
    const auto text = value ? value->getString(kMaxName) : std::nullopt;
    return text.value_or("");
}

std::vector<DriverGroupStarts> driverStarts(const Ref<KeyNode>& services)
{
    std::vector<DriverGroupStarts> groups;
    for (const auto& group : storageDriverGroups()) {
        DriverGroupStarts starts{group.step, {}};
        for (const auto& entry : group.entries) {
            const auto service = services ? services->subkey(entry.service) : nullptr;
            const auto start = service ? service->value("Start") : nullptr;
            const std::int64_t number = start ? start->getNumber() : -1;
            starts.drivers.push_back({entry.service, number >= 0 ? std::optional(number) : std::nullopt});
        }
        groups.push_back(std::move(starts));
    }
    return groups;
}

std::vector<DriveRecord> driveRecords(const Ref<KeyNode>& root)
{
    std::vector<DriveRecord> records;
    const auto key = root ? root->subkey("MountedDevices") : nullptr;
    const auto values = key ? key->values() : nullptr;
    while (const auto value = values ? values->next() : nullptr)
        if (const auto data = value->data())
            records.push_back({value->name(), Platform::Windows::decodeMountedDevice(*data)});
    return records;
}

void readSystemHive(HiveFile& hive, WindowsInfo& info)
{
    const auto root = hive.root();
    const std::int64_t current = getCurrentControlSet(hive);
    const auto controlSet = current >= 0 ? getControlSetKey(hive, current) : nullptr;
    if (controlSet) {
        info.controlSet = current;
        info.computerName = textAt(controlSet, "Control/ComputerName/ComputerName", "ComputerName");
        info.hostName = textAt(controlSet, "Services/Tcpip/Parameters", "NV Hostname");
    }
    info.drivers = driverStarts(controlSet ? controlSet->subkey("Services") : nullptr);
    info.mountedDevices = driveRecords(root);
}

void readFiles(Platform::Filesys& fs, WindowsInfo& info)
{
    if (const auto hiberfile = fs.openFile("/hiberfil.sys", Platform::OpenFlags::Read))
        info.hiberfileSize = hiberfile->size();
    std::uint8_t status = 0;
    const auto bootStatus = fs.openFile("/Windows/bootstat.dat", Platform::OpenFlags::Read);
    if (bootStatus && bootStatus->seek(11) && bootStatus->read(&status, 1) == 1)
        info.bootStatus = status;
}

bool hasUpdateClientId(const Ref<Platform::Filesys>& fs)
{
    const auto path = Platform::Windows::Utils::findSoftwareRegistryHive(*fs);
    const auto hive = path ? Platform::Windows::Utils::openMachineHive(fs, *path, false) : nullptr;
    const auto root = hive ? hive->root() : nullptr;
    const auto key = root ? root->find("Microsoft/Windows/CurrentVersion/WindowsUpdate") : nullptr;
    return key && key->value("SusClientId");
}

} // namespace

std::optional<WindowsInfo> describeWindows(const Ref<Platform::Filesys>& fs, const Ref<Interfaces::Storage>& storage)
{
    WindowsInfo info;
    info.state = Platform::Windows::inspectVolume(storage, fs.get());
    if (info.state.encrypted)
        return info;
    const auto path = fs ? Platform::Windows::Utils::findSystemRegistryHive(*fs) : std::nullopt;
    if (!path)
        return std::nullopt;
    info.systemHive = *path;
    if (const auto hive = Platform::Windows::Utils::openMachineHive(fs, *path, false))
        readSystemHive(*hive, info);
    info.system = Platform::Windows::Utils::getInstalledSystem(fs);
    readFiles(*fs, info);
    info.updateClientId = hasUpdateClientId(fs);
    return info;
}

} // namespace Libraries::KRO::PostProcessing::Windows
