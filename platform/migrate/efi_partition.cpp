#include "platform/migrate/efi_partition.h"

#include "platform/core/byte_array.h"
#include "platform/fs/filesys.h"
#include "platform/fs/path_lookup.h"
#include "platform/log/log.h"
#include "platform/partman/partition.h"
#include "platform/storage/window_storage.h"
#include "platform/windows/boot_store_builder.h"
#include "platform/windows/system_hives.h"

#include <vector>

namespace Platform::Migrate::Utils {

namespace {

constexpr const char* kBootFolder = "/EFI/Microsoft/Boot";
constexpr const char* kFallbackFolder = "/EFI/Boot";
constexpr const char* kFallbackLoader = "/EFI/Boot/bootx64.efi";
constexpr std::size_t kCopyBlock = 1 << 16;

LogChannel channel()
{
    static const LogChannel registered = SysLogFilter::reg("Migrate");
    return registered;
}

bool fail(const std::string& message)
{
    LogMessage(channel(), LogError) << message;
    return false;
}

Ref<Filesys> openPartition(const Ref<Interfaces::Storage>& disk, const Partition& partition, Access access)
{
    return Filesys::create(WindowStorage::create(disk, partition.start(), partition.size()), 0, access);
}

Ref<ByteArray> idOf(const Guid& guid)
{
    return ByteArray::create(guid);
}

struct WindowsOnDisk {
    Platform::Windows::InstalledWindows windows;
    Ref<Filesys> fs;
};

bool ensureDirectory(Filesys& fs, const std::string& path)
{
    std::string prefix;
    for (std::size_t at = 1; at <= path.size(); ++at) {
        if (at < path.size() && path[at] != '/')
            continue;
        prefix = path.substr(0, at);
        if (!fs.openDirectory(prefix) && !fs.createDirectory(prefix))
            return false;
    }
    return true;
}

bool copyFile(Filesys& from, const std::string& source, Filesys& to, const std::string& destination)
{
    const auto in = from.openFile(source, OpenFlags::Read);
    const auto out = to.openFile(destination, OpenFlags::CreateOrTruncate);
    if (!in || !out)
        return fail("Could not copy " + source + " to " + destination);
    std::vector<std::uint8_t> block(kCopyBlock);
    for (std::uint64_t done = 0, size = in->size(); done < size;) {
        const std::uint64_t length = std::min<std::uint64_t>(block.size(), size - done);
        if (in->read(block.data(), length) != length || out->write(block.data(), length) != length)
            return fail("Could not copy " + source + " to " + destination);
        done += length;
    }
    return out->flush() || fail("Could not copy " + source + " to " + destination);
}

// Everything below source (a real path on from) into destination, folders made as needed.
bool copyTree(Filesys& from, const std::string& source, Filesys& to, const std::string& destination)
{
    const auto listing = from.openDirectory(source);
    if (!listing || !ensureDirectory(to, destination))
        return fail("Could not copy " + source + " to " + destination);
    std::vector<DirectoryEntry> entries;
    for (DirectoryEntry entry; listing->next(entry);)
        entries.push_back(entry);
    for (const auto& entry : entries) {
        const std::string inner = source + "/" + entry.name, outer = destination + "/" + entry.name;
        if (!(entry.type == 1 ? copyTree(from, inner, to, outer) : copyFile(from, inner, to, outer)))
            return false;
    }
    return true;
}

class EfiPopulation {
public:
    EfiPopulation(Ref<Interfaces::Storage> target, Ref<PartitionManager> table)
        : target_(std::move(target)), table_(std::move(table))
    {
    }

    bool run()
    {
        if (!findPartitions())
            return false;
        const auto& newest = newestWindows();
        Filesys& windows = *newest.fs;
        const auto bootFiles = findPathIgnoringCase(windows, {"Windows", "Boot", "EFI"});
        if (!bootFiles)
            return fail("The Windows on the disk has no Windows/Boot/EFI to take the boot files from");
        if (!copyTree(windows, *bootFiles, *esp_, kBootFolder))
            return false;
        for (const char* folder : {"Fonts", "Resources"})
            if (const auto extra = findPathIgnoringCase(windows, {"Windows", "Boot", folder}))
                if (!copyTree(windows, *extra, *esp_, std::string(kBootFolder) + "/" + folder))
                    return false;
        const auto loader = findPathIgnoringCase(*esp_, {"EFI", "Microsoft", "Boot", "bootmgfw.efi"});
        if (!loader || !ensureDirectory(*esp_, kFallbackFolder) || !copyFile(*esp_, *loader, *esp_, kFallbackLoader))
            return fail("Could not place the boot manager at " + std::string(kFallbackLoader));
        return writeStore(windows) && esp_->flush();
    }

private:
    bool findPartitions()
    {
        if (!target_ || !table_)
            return fail("No target disk to populate an EFI system partition on");
        for (std::size_t i = 0; i < table_->partitionCount(); ++i) {
            const auto partition = table_->partition(i);
            if (!esp_ && Partition::isEfiSystemType(partition->typeUuid())) {
                esp_ = openPartition(target_, *partition, Access::ReadWrite);
                espId_ = idOf(partition->uuid());
                if (!esp_)
                    return fail("The EFI system partition has no file system that can be written");
                continue;
            }
            const auto fs = openPartition(target_, *partition, Access::ReadOnly);
            if (const auto system = fs ? Platform::Windows::Utils::getInstalledSystem(fs) : std::nullopt)
                windows_.push_back({{*system, idOf(partition->uuid())}, fs});
        }
        if (!esp_)
            return fail("The disk has no EFI system partition");
        if (windows_.empty())
            return fail("The disk holds no Windows to boot");
        return true;
    }

    // The one the store makes the default; its boot files and template are used.
    const WindowsOnDisk& newestWindows() const
    {
        const WindowsOnDisk* newest = &windows_.front();
        for (const auto& candidate : windows_) {
            const auto& a = candidate.windows.system;
            const auto& b = newest->windows.system;
            if (a.major > b.major || (a.major == b.major && a.minor > b.minor))
                newest = &candidate;
        }
        return *newest;
    }

    bool writeStore(Filesys& windows)
    {
        const auto templatePath = findPathIgnoringCase(windows, {"Windows", "System32", "config", "BCD-Template"});
        const std::string store = std::string(kBootFolder) + "/BCD";
        if (!templatePath)
            return fail("The Windows on the disk has no BCD-Template to make a boot configuration store from");
        if (!copyFile(windows, *templatePath, *esp_, store))
            return false;
        const auto hive = Platform::Windows::Utils::openMachineHive(esp_, store, true);
        if (!hive || !hive->writable())
            return fail("Could not open the new boot configuration store " + store);
        Platform::Windows::BootStoreLayout layout;
        layout.diskId = table_->diskId();
        layout.efiPartition = espId_;
        for (const auto& found : windows_)
            layout.systems.push_back(found.windows);
        if (!Platform::Windows::fillBootStore(*hive, layout))
            return false;
        return hive->flush() || fail("Could not write the boot configuration store " + store);
    }

    Ref<Interfaces::Storage> target_;
    Ref<PartitionManager> table_;
    Ref<Filesys> esp_;
    Ref<ByteArray> espId_;
    std::vector<WindowsOnDisk> windows_;
};

} // namespace

bool populateEFIPartition(const std::string& /*sourcePath*/, const Ref<Interfaces::Storage>& target,
                          const Ref<PartitionManager>& targetTable)
{
    return EfiPopulation(target, targetTable).run();
}

bool populateEFIPartition(const Ref<Interfaces::Storage>& /*source*/, const Ref<PartitionManager>& /*sourceTable*/,
                          const Ref<Interfaces::Storage>& target, const Ref<PartitionManager>& targetTable)
{
    return EfiPopulation(target, targetTable).run();
}

} // namespace Platform::Migrate::Utils
