#include "platform/windows/boot_store_builder.h"

#include "platform/core/error.h"
#include "platform/core/guid.h"
#include "platform/core/random.h"
#include "platform/core/string_util.h"
#include "platform/windows/bcd_elements.h"
#include "platform/windows/bcd_store.h"
#include "platform/windows/log_channel.h"
#include "platform/windows/registry_keys.h"

#include <optional>

namespace Platform::Windows {

namespace {

constexpr std::uint32_t kString = 1;
constexpr std::uint32_t kMultiString = 7;

constexpr const char* kApplicationDevice = "11000001";
constexpr const char* kApplicationPath = "12000002";
constexpr const char* kDescription = "12000004";
constexpr const char* kOsDevice = "21000001";
constexpr const char* kDefaultObject = "23000003";
constexpr const char* kResumeObject = "23000006";
constexpr const char* kDisplayOrder = "24000001";
constexpr const char* kApplicationRelativePath = "42000002";

// The template's objects that a store of its own has no use for; {template_efi} goes last.
constexpr const char* kTemplateObjects[] = {
    "{466f5a88-0af2-4f76-9038-095b170dc21c}", "{7254a080-1510-4e85-ac0f-e7fb3d444736}",
    "{cbd971bf-b7b8-4885-951a-fa03044F5d71}", "{a1943bbc-ea85-487c-97c7-C9ede908a38a}", kEfiOsTemplateObject};

LogMessage error()
{
    return LogMessage(channel(), LogError);
}

bool fail(const std::string& message)
{
    error() << message;
    return false;
}

struct DefaultEntry {
    const InstalledWindows* windows;
    std::string object;
};

bool newer(const Utils::InstalledSystem& candidate, const Utils::InstalledSystem& current)
{
    return candidate.major > current.major || (candidate.major == current.major && candidate.minor > current.minor);
}

class StoreFiller {
public:
    StoreFiller(const BootStoreLayout& layout, std::function<std::string()> newObjectName)
        : layout_(layout), newObjectName_(std::move(newObjectName))
    {
    }

    bool fill(Hive::HiveFile& store)
    {
        const auto root = store.root();
        if (!root)
            return fail("Failed to retrieve root node of BCD");
        objects_ = root->subkey("Objects");
        if (!objects_)
            return fail("Failed to retrieve Objects node of BCD");
        bootManager_ = objects_->subkey(kBootManagerObject);
        if (!bootManager_)
            return fail("Failed to retrieve {bootmgr} node of BCD");
        osTemplate_ = objects_->subkey(kEfiOsTemplateObject);
        if (!osTemplate_)
            return fail("Failed to retrieve {template_efi} node of BCD");
        if (!setPartitionDeviceElement(bootManager_, kApplicationDevice, layout_.diskId, layout_.efiPartition))
            return fail("Failed to create application device entry in {bootmgr} of BCD");
        for (const auto& windows : layout_.systems)
            if (!addEntry(windows))
                return false;
        if (!setDisplayOrder() || !setDefault())
            return false;
        if (default_)
            setUpResume();
        cleanUp();
        return true;
    }

private:
    std::string unusedObjectName()
    {
        std::string name = newObjectName_();
        while (objects_->subkey(name))
            name = newObjectName_();
        return name;
    }

    bool addEntry(const InstalledWindows& windows)
    {
        const std::string name = unusedObjectName();
        LogMessage(channel(), LogDetail) << "Creating new boot entry " << name;
        const auto entry = copyObject(objects_, osTemplate_, name);
        if (!entry)
            return fail("Failed to copy {template_efi} to " + name);
        if (!setPartitionDeviceElement(entry, kApplicationDevice, layout_.diskId, windows.partition))
            return fail("Failed to create application device entry in " + name);
        if (!setPartitionDeviceElement(entry, kOsDevice, layout_.diskId, windows.partition))
            return fail("Failed to create OS device entry in " + name);
        const auto description = createElement(entry, kDescription, kString);
        if (!description)
            return fail("Failed to create description entry in " + name);
        LogMessage(channel(), LogDetail) << "Got entry: " << windows.system.name;
        if (!description->setString(windows.system.name))
            return fail("Failed to set description of " + name);
        if (!default_ || newer(windows.system, default_->windows->system))
            default_ = DefaultEntry{&windows, name};
        entries_.push_back(name);
        return true;
    }

    bool setDisplayOrder()
    {
        const auto order = createElement(bootManager_, kDisplayOrder, kMultiString);
        if (!order)
            return fail("Failed to create DisplayOrder entry in {bootmgr}");
        if (!order->setMultiString(entries_))
            return fail("Failed to set DisplayOrder entry in {bootmgr}");
        return true;
    }

    bool setDefault()
    {
        if (!default_) {
            error() << "No default entry found";
            return true;
        }
        const auto defaultObject = getStringElement(bootManager_, kDefaultObject);
        if (!defaultObject)
            return fail("Failed to retrieve DefaultObject entry in {bootmgr}");
        if (!defaultObject->setString(default_->object))
            return fail("Failed to update DefaultObject entry in {bootmgr}");
        LogMessage(channel(), LogDetail) << "Set default entry to " << default_->windows->system.name;
        return true;
    }

    // The first resume application with an EFI path becomes the default's resume entry; the
    // others are removed.
    void setUpResume()
    {
        std::optional<std::string> resume;
        for (const auto& name : findResumeObjects(objects_)) {
            const auto object = objects_->subkey(name);
            const auto path = object ? getStringElement(object, kApplicationRelativePath) : nullptr;
            const auto text = path ? path->getString(kMaxPath) : std::nullopt;
            if (!path)
                error() << "Failed to retrieve ApplicationRelativePath entry from " << name;
            if (!resume && text && StringUtil::endsWith(*text, ".efi", true)) {
                LogMessage(channel(), LogDetail) << "Found resume template " << name;
                resume = name;
                continue;
            }
            removals_.push_back(name);
        }
        if (resume && !setUpResumeEntry(*resume)) {
            error() << "Failed to setup resume entry " << *resume;
            removals_.push_back(*resume);
        }
    }

    bool setUpResumeEntry(const std::string& name)
    {
        const auto object = objects_->subkey(name);
        const std::string code = "; error: ";
        if (!renameElement(object, kApplicationRelativePath, kApplicationPath))
            return fail("Failed to rename ApplicationRelativePath to ApplicationPath in " + name + code +
                        std::to_string(Error::get()));
        const auto path = getStringElement(object, kApplicationPath);
        const auto text = path ? path->getString(kMaxPath) : std::nullopt;
        if (!text)
            return fail("Failed to retrieve ApplicationPath element in " + name + code + std::to_string(Error::get()));
        std::string windowsPath = StringUtil::replace(*text, "/", "\\");
        if (windowsPath.empty() || windowsPath.front() != '\\')
            windowsPath = std::string(1, '\\').append(windowsPath); // not insert(0, ...): GCC 12 -O3 -Wrestrict
        if (!path->setString(windowsPath))
            return fail("Failed to update value of ApplicationPath in " + name + code + std::to_string(Error::get()));
        const auto& partition = default_->windows->partition;
        if (!setPartitionDeviceElement(object, kApplicationDevice, layout_.diskId, partition) ||
            !setPartitionDeviceElement(object, kOsDevice, layout_.diskId, partition))
            return false;
        const auto resumeObject = createElement(bootManager_, kResumeObject, kString);
        if (!resumeObject)
            return fail("Failed to create ResumeObject entry in {bootmgr}");
        if (!resumeObject->setString(name))
            return fail("Failed to set ResumeObject entry in {bootmgr}");
        return true;
    }

    void cleanUp()
    {
        std::vector<std::string> doomed(std::begin(kTemplateObjects), std::end(kTemplateObjects));
        doomed.insert(doomed.end(), removals_.begin(), removals_.end());
        for (const auto& name : doomed) {
            const auto object = objects_->subkey(name);
            if (!object)
                error() << "Key not found for cleanup: " << name;
            else if (!deleteRegistryKey(objects_, object))
                error() << "Failed to delete key " << name << "; error: " << Error::get();
        }
    }

    static constexpr std::size_t kMaxPath = 0x8000;

    const BootStoreLayout& layout_;
    std::function<std::string()> newObjectName_;
    Ref<KeyNode> objects_, bootManager_, osTemplate_;
    std::vector<std::string> entries_;
    std::optional<DefaultEntry> default_;
    std::vector<std::string> removals_;
};

} // namespace

std::string randomObjectName()
{
    static const auto random = Random::create();
    Guid guid{};
    for (std::size_t i = 0; i < guid.size(); i += 4) {
        const std::uint32_t word = random->next32();
        for (std::size_t j = 0; j < 4; ++j)
            guid[i + j] = std::uint8_t(word >> (8 * j));
    }
    guid[7] = std::uint8_t((guid[7] & 0x0F) | 0x40); // version 4
    guid[8] = std::uint8_t((guid[8] & 0x3F) | 0x80); // the variant of RFC 4122
    std::string name = "{";                          // appended: GCC 12 at -O3 warns falsely (-Wrestrict) on "{" + ...
    name += StringUtil::lower(guidToText(guid));
    return name += '}';
}

bool fillBootStore(Hive::HiveFile& store, const BootStoreLayout& layout,
                   const std::function<std::string()>& newObjectName)
{
    return StoreFiller(layout, newObjectName ? newObjectName : randomObjectName).fill(store);
}

} // namespace Platform::Windows
