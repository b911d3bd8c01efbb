#include "postprocessing/bootloader/raspberry_pi.h"

#include "platform/core/error.h"
#include "platform/core/string_util.h"
#include "platform/fs/family.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/file_tools.h"
#include "postprocessing/tools/target_filesystem.h"

#include <vector>

namespace Libraries::KRO::PostProcessing::Bootloader {

namespace {

using Platform::StringUtil;

// "key=value" split at its first "="; nothing without one.
std::optional<std::pair<std::string, std::string>> splitOption(const std::string& option)
{
    const auto equals = option.find('=');
    if (equals == std::string::npos)
        return std::nullopt;
    return std::pair{option.substr(0, equals), option.substr(equals + 1)};
}

// Both firmware files must be there; a missing one is normal and silent.
bool holdsPiFirmware(Platform::Filesys& fs)
{
    bool both = true;
    for (const char* name : {"bootcode.bin", "start.elf"}) {
        Platform::Error::set(Platform::Error::None);
        if (fs.openFile(std::string("/") + name, Platform::OpenFlags::Read))
            continue;
        both = false;
        if (Platform::Error::get() != Platform::Error::PathNotFound)
            LogMessage(Channels::bootloader(), LogError)
                << "Failed to open " << name << "; error: " << Platform::Error::get();
    }
    return both;
}

// Reads, rewrites and writes back /cmdline.txt; true when it was written.
bool adjustCommandLine(Platform::Filesys& fs, const UuidReplaceMap& fsIds, const UuidReplaceMap& partitionIds)
{
    Platform::Error::set(Platform::Error::None);
    const auto file = fs.openFile("/cmdline.txt", Platform::OpenFlags::ReadWriteExisting);
    if (!file) {
        if (Platform::Error::get() != Platform::Error::PathNotFound)
            LogMessage(Channels::bootloader(), LogError)
                << "Failed to open /cmdline.txt; error: " << Platform::Error::get();
        return false;
    }
    const u64 size = file->size();
    if (size == 0) {
        LogMessage(Channels::bootloader(), LogDetail) << "/cmdline.txt is empty";
        return false;
    }
    std::string text(size, '\0');
    const u64 read = file->read(text.data(), size);
    if (read != size) {
        LogMessage(Channels::bootloader(), LogError)
            << "Failed to read data from /cmdline.txt; only read " << read << " of " << size;
        return false;
    }
    bool modified = false;
    const std::string rewritten = rewriteCommandLine(text, fsIds, partitionIds, modified);
    if (!modified)
        return false;
    file->seek(0);
    if (rewritten.size() != size)
        file->resize(rewritten.size());
    if (file->write(rewritten.data(), rewritten.size()) != rewritten.size() || !file->flush())
        LogMessage(Channels::bootloader(), LogError)
            << "Failed to write modified command line to /cmdline.txt; error: " << Platform::Error::get();
    return true;
}

} // namespace

std::string rewriteCommandLine(const std::string& text, const UuidReplaceMap& fsIds, const UuidReplaceMap& partitionIds,
                               bool& modified)
{
    auto options = StringUtil::split(text, " ");
    for (auto& option : options) {
        const auto keyValue = splitOption(option);
        if (!keyValue || keyValue->first != "root")
            continue; // a flag such as "rootwait", or another option

        LogMessage(Channels::bootloader(), LogDetail) << "Found root option: " << keyValue->second;
        modified = true; // written back even where the id stays as it is
        const auto specifierId = splitOption(keyValue->second);
        const std::string specifier = specifierId ? specifierId->first : keyValue->second;
        if (!specifierId || (specifier != "UUID" && specifier != "PARTUUID")) {
            LogMessage(Channels::bootloader(), LogDetail) << "Ignoring unknown root specifier: " << specifier;
            continue;
        }
        std::string prefix;
        const std::string newId =
            Tools::replaceVolumeId(specifierId->second, specifier == "UUID" ? fsIds : partitionIds, prefix);
        option = "root=" + specifier + "=" + newId;
    }
    return StringUtil::join(options, " ");
}

StepResult adjustRaspberryPi(Ref<Keeper> keeper)
{
    Tools::IdMaps maps;
    if (const auto stop = Tools::startIdStep(keeper, maps,
                                             {"FS ID: cannot add mapping for ", "Part ID: cannot add mapping for ",
                                              "No FS or partition ID mapping found", LogDetail},
                                             Channels::bootloader()))
        return *stop;
    StepResult result = StepResult::NothingFound;
    for (const u64 partition : entriesOf(*keeper, KindPartition)) {
        if (!Platform::isFat(Tools::getToFileSystemType(keeper, partition)))
            continue;
        const auto fs = Tools::getToFSItemFactory(keeper, partition, 1);
        if (fs && holdsPiFirmware(*fs) && adjustCommandLine(*fs, maps.fsIds, maps.partitionIds))
            result = foldResult(result, StepResult::Ok);
    }
    return result;
}

} // namespace Libraries::KRO::PostProcessing::Bootloader
