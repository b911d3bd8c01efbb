#include "platform/windows/bcd_store.h"

#include "platform/core/string_util.h"
#include "platform/fs/path_lookup.h"

#include <utility>

namespace Platform::Windows {

std::vector<std::string> findBootStores(Filesys& fs)
{
    std::vector<std::string> stores;
    for (const auto& names : {std::vector<std::string_view>{"EFI", "Microsoft", "Boot", "BCD"},
                              std::vector<std::string_view>{"Boot", "BCD"}})
        if (auto path = findPathIgnoringCase(fs, names))
            stores.push_back(std::move(*path));
    return stores;
}

std::string wellKnownObjectName(const std::string& guid)
{
    static const std::pair<const char*, const char*> kNames[] = {
        {"{9dea862c-5cdd-4e70-acc1-f32b344d4795}", "{bootmgr}"},
        {"{a5a30fa2-3d06-4e9f-b5f4-a01df9d1fcba}", "{fwbootmgr}"},
        {"{b2721d73-1db4-4c62-bf78-c548a880142d}", "{memdiag}"},
        {"{466f5a88-0af2-4f76-9038-095b170dc21c}", "{ntldr}"},
        {"{fa926493-6f1c-4193-a414-58f0b2456d1e}", "{current}"},
        {"{1cae1eb7-a0df-4d4d-9851-4860e34ef535}", "{default}"},
        {"{7ea2e1ac-2e61-4728-aaa3-896d9d0a9f0e}", "{globalsettings}"},
        {"{6efb52bf-1766-41db-a6b3-0ee5eff72bd7}", "{bootloadersettings}"},
        {"{1afa9c49-16ab-4a5c-901b-212802da9460}", "{resumeloadersettings}"},
        {"{5189b25c-5558-4bf2-bca4-289b11bd29e2}", "{badmemory}"},
        {"{4636856e-540f-4170-a130-a84776f4c654}", "{dbgsettings}"},
        {"{0ce4991b-e6b3-4b16-b23c-5e0d9250e5d9}", "{emssettings}"},
        {"{7ff607e0-4395-11db-b0de-0800200c9a66}", "{hypervisorsettings}"},
        {"{313e8eed-7098-4586-a9bf-309c61f8d449}", "{kerneldbgsettings}"},
        {"{ae5534e0-a924-466c-b836-758539a3ee3a}", "{ramdiskoptions}"},
    };
    const std::string lower = StringUtil::lower(guid);
    for (const auto& [known, name] : kNames)
        if (lower == known)
            return name;
    return {};
}

std::string objectTypeName(std::uint32_t type)
{
    static const std::pair<std::uint32_t, const char*> kTypes[] = {
        {0x10100001, "firmware boot manager"}, {0x10100002, "boot manager"},     {0x10200003, "OS loader"},
        {0x10200004, "resume loader"},         {0x10200005, "memory tester"},    {0x10300006, "legacy loader"},
        {0x101fffff, "firmware application"},  {0x20100000, "library settings"}, {0x20200003, "loader settings"},
        {0x20200004, "resume settings"},       {0x30000000, "device options"},
    };
    for (const auto& [known, name] : kTypes)
        if (type == known)
            return name;
    return {};
}

} // namespace Platform::Windows
