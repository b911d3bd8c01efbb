#include "postprocessing/bootloader/grub_config.h"

#include "platform/core/error.h"
#include "platform/core/string_util.h"
#include "platform/fs/line_io.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/file_tools.h"
#include "postprocessing/tools/storage_resolution.h"
#include "postprocessing/tools/text_rewrite.h"

#include <vector>

namespace Libraries::KRO::PostProcessing::Bootloader {

namespace {

using Platform::StringUtil;

struct Maps {
    UuidReplaceMap fsIds;
    UuidReplaceMap partitionIds;
    LinuxIdMap linuxIds;
};

enum class ConfigKind { Grub2, Legacy };

std::string variantText(const VariantList& list)
{
    if (list.empty())
        return {};
    if (const auto* text = list.front().asString())
        return *text;
    if (const auto number = list.front().asInteger())
        return Platform::StrConv::str(*number);
    return {};
}

LinuxIdMap linuxIdMap(const Ref<Keeper>& keeper)
{
    LinuxIdMap map;
    for (const u64 entry : entriesOf(*keeper, KindLinuxIdString)) {
        const std::string from = variantText(keeper->getFrom(entry));
        const std::string to = variantText(keeper->getTo(entry));
        if (from.empty()) {
            LogMessage(Channels::bootloader(), LogWarning)
                << "Invalid from Linux id for " << Tools::entryLogName(*keeper, entry);
        } else if (to.empty()) {
            LogMessage(Channels::bootloader(), LogWarning)
                << "Invalid to Linux is for " << Tools::entryLogName(*keeper, entry);
        } else {
            map[from] = to;
        }
    }
    return map;
}

// The drive definition after root= or resume=, rewritten; empty when it has no mapping.
std::string rewriteDefinition(const std::string& option, const std::string& definition, const std::string& line,
                              const Maps& maps)
{
    const auto through = [&](const char* prefix, const UuidReplaceMap& map) {
        std::string idPrefix = prefix;
        return Tools::replaceVolumeId(definition, map, idPrefix);
    };
    if (StringUtil::startsWith(definition, "UUID="))
        return through("UUID=", maps.fsIds);
    if (StringUtil::startsWith(definition, "/dev/disk/by-uuid/"))
        return through("/dev/disk/by-uuid/", maps.fsIds);
    if (StringUtil::startsWith(definition, "PARTUUID="))
        return through("PARTUUID=", maps.partitionIds);
    if (StringUtil::startsWith(definition, "/dev/disk/by-id/")) {
        const std::string id = definition.substr(std::string("/dev/disk/by-id/").size());
        const auto found = maps.linuxIds.find(id);
        if (found == maps.linuxIds.end())
            return definition;
        const std::string replaced = "/dev/disk/by-id/" + found->second;
        LogMessage(Channels::bootloader(), LogDetail) << "found id " << id << " in " << option;
        LogMessage(Channels::bootloader(), LogDetail)
            << "replacing drive definition " << definition << " with " << replaced;
        return replaced;
    }
    LogMessage(Channels::bootloader(), LogWarning)
        << "Unsupported drive definition " << definition << " in line " << line;
    return definition;
}

std::string kernelLine(const std::string& line, const Maps& maps)
{
    auto options = StringUtil::split(line, " ");
    int replaced = 0;
    for (auto& option : options) {
        for (const char* key : {"root=", "resume="}) {
            if (!StringUtil::startsWith(option, key))
                continue;
            const std::string definition = option.substr(std::string(key).size());
            const std::string rewritten = rewriteDefinition(option, definition, line, maps);
            if (rewritten != definition) {
                option = key + rewritten;
                ++replaced;
            }
        }
    }
    if (replaced == 0) {
        LogMessage(Channels::bootloader(), LogDetail) << "No replacements for kernel config line " << line;
        return line;
    }
    const std::string rebuilt = StringUtil::join(options, " ");
    LogMessage(Channels::bootloader(), LogDetail)
        << replaced << " entries replaced from kernel line " << line << " to line " << rebuilt;
    return rebuilt;
}

bool containsWord(const std::string& line, const std::string& word)
{
    for (const auto& part : StringUtil::split(line, " "))
        if (part == word)
            return true;
    return false;
}

// The rewritten text of one (left-trimmed) line, by what the line is.
std::string rewriteLine(const std::string& trimmed, ConfigKind kind, const Maps& maps)
{
    if (kind == ConfigKind::Legacy) {
        if (!StringUtil::startsWith(trimmed, "kernel"))
            return trimmed;
        LogMessage(Channels::bootloader(), LogDetail) << "Found grub2 linux command: " << trimmed;
        return kernelLine(trimmed, maps);
    }
    if (StringUtil::startsWith(trimmed, "search.fs_uuid")) {
        LogMessage(Channels::bootloader(), LogDetail) << "Found grub2 search.fs_uuid command: " << trimmed;
        return rewriteSearchLine(trimmed, true, maps.fsIds);
    }
    if (StringUtil::startsWith(trimmed, "search") &&
        (containsWord(trimmed, "--fs-uuid") || containsWord(trimmed, "-u"))) {
        LogMessage(Channels::bootloader(), LogDetail) << "Found grub2 search uuid command: " << trimmed;
        return rewriteSearchLine(trimmed, false, maps.fsIds);
    }
    if (StringUtil::startsWith(trimmed, "linux")) {
        LogMessage(Channels::bootloader(), LogDetail) << "Found grub2 linux command: " << trimmed;
        return kernelLine(trimmed, maps);
    }
    return trimmed;
}

const Tools::RewriteWording kGrub2Wording{"Failed to write changed grub 2 config back to disk",
                                          "Nothing found to adjust in grub 2 config file",
                                          "Adjust failed, not writing updated grub 2 config"};
const Tools::RewriteWording kLegacyWording{"Failed to write changed fstab back to disk",
                                           "Nothing found to adjust in grub legacy configuration",
                                           "Adjust failed, not writing updated grub legacy configuration"};
StepResult rewriteFile(const Ref<Platform::File>& file, ConfigKind kind, const Maps& maps)
{
    const auto rewrite = [&](const std::string& text) {
        const std::string trimmed(StringUtil::ltrim(text));
        const std::string rewritten = rewriteLine(trimmed, kind, maps);
        // The indentation stays as it was.
        return rewritten == trimmed ? text : text.substr(0, text.size() - trimmed.size()) + rewritten;
    };
    // A failed copy back is logged and leaves the file's result as it was.
    return Tools::rewriteTextFile(file, rewrite, Channels::bootloader(),
                                  kind == ConfigKind::Grub2 ? kGrub2Wording : kLegacyWording,
                                  Tools::CopyBackFailure::KeepsResult);
}

// A configuration file, or null: a missing one silently, any other failure with a log line.
Ref<Platform::File> openConfig(Platform::Filesys& fs, const std::string& path)
{
    Platform::Error::set(Platform::Error::None);
    auto file = fs.openFile(path, Platform::OpenFlags::ReadWriteExisting);
    if (!file && Platform::Error::get() != Platform::Error::PathNotFound)
        LogMessage(Channels::bootloader(), LogError) << "Could not open " << path << " " << Platform::Error::get();
    return file;
}

// GRUB_CMDLINE_LINUX="..." and GRUB_CMDLINE_LINUX_DEFAULT: the kernel options update-grub
// writes into every linux line of the next grub.cfg.
std::string defaultsLine(const std::string& line, const Maps& maps)
{
    const std::string_view trimmed = StringUtil::ltrim(line);
    const auto equals = trimmed.find('=');
    if (!StringUtil::startsWith(std::string(trimmed), "GRUB_CMDLINE_LINUX") || equals == std::string_view::npos)
        return line;
    const std::size_t valueStart = line.size() - trimmed.size() + equals + 1;
    std::string value = line.substr(valueStart);
    const bool quoted =
        value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front();
    if (quoted)
        value = value.substr(1, value.size() - 2);
    const std::string rewritten = kernelLine(value, maps);
    if (rewritten == value)
        return line;
    const std::string quote = quoted ? line.substr(valueStart, 1) : std::string();
    return line.substr(0, valueStart) + quote + rewritten + quote;
}

StepResult rewriteDefaults(const Ref<Platform::File>& file, const std::string& path, const Maps& maps)
{
    const Tools::RewriteWording wording{"Failed to write changed " + path + " back to disk",
                                        "Nothing found to adjust in " + path,
                                        "Adjust failed, not writing updated " + path};
    return Tools::rewriteTextFile(
        file, [&](const std::string& line) { return defaultsLine(line, maps); }, Channels::bootloader(), wording);
}

// /etc/default/grub and the snippets of /etc/default/grub.d that update-grub reads after it.
StepResult adjustDefaults(Platform::Filesys& fs, const Maps& maps)
{
    StepResult result = StepResult::NothingFound;
    if (const auto file = openConfig(fs, "/etc/default/grub"))
        result = foldResult(result, rewriteDefaults(file, "/etc/default/grub", maps));
    if (const auto snippets = fs.openDirectory("/etc/default/grub.d")) {
        std::vector<std::string> names;
        for (Platform::DirectoryEntry entry; snippets->next(entry);)
            if (entry.type != 1 && StringUtil::endsWith(entry.name, ".cfg"))
                names.push_back(entry.name);
        for (const auto& name : names)
            if (const auto file = openConfig(fs, "/etc/default/grub.d/" + name))
                result = foldResult(result, rewriteDefaults(file, "/etc/default/grub.d/" + name, maps));
    }
    return result;
}

StepResult adjustFileSystem(Platform::Filesys& fs, const Maps& maps)
{
    StepResult result = StepResult::NothingFound;
    result = foldResult(result, adjustDefaults(fs, maps));
    for (const char* path : {"/boot/grub/grub.cfg", "/boot/grub2/grub.cfg", "/grub/grub.cfg", "/grub2/grub.cfg"}) {
        if (const auto file = openConfig(fs, path)) {
            LogMessage(Channels::bootloader(), LogDetail) << "Found grub 2 config at " << path;
            result = foldResult(result, rewriteFile(file, ConfigKind::Grub2, maps));
            break;
        }
    }
    if (const auto efi = fs.openDirectory("/EFI")) {
        for (Platform::DirectoryEntry entry; efi->next(entry);) {
            if (entry.type != 1)
                continue;
            const std::string path = "/EFI/" + entry.name + "/grub.cfg";
            if (const auto file = openConfig(fs, path)) {
                LogMessage(Channels::bootloader(), LogDetail) << "Found grub efi configuration at " << path;
                result = foldResult(result, rewriteFile(file, ConfigKind::Grub2, maps));
            }
        }
    }
    for (const char* path : {"/boot/grub/menu.lst", "/grub/menu.list"}) {
        if (const auto file = openConfig(fs, path)) {
            LogMessage(Channels::bootloader(), LogDetail) << "Found grub legacy configuration at " << path;
            result = foldResult(result, rewriteFile(file, ConfigKind::Legacy, maps));
            break;
        }
    }
    return result;
}

} // namespace

std::string rewriteKernelLine(const std::string& line, const UuidReplaceMap& fsIds, const UuidReplaceMap& partitionIds,
                              const LinuxIdMap& linuxIds)
{
    return kernelLine(line, Maps{fsIds, partitionIds, linuxIds});
}

std::string rewriteSearchLine(const std::string& line, bool fsUuidCommand, const UuidReplaceMap& fsIds)
{
    auto words = StringUtil::split(line, " ");
    // The uuid is the first argument that is no option (search.fs_uuid: the first argument).
    for (std::size_t i = 1; i < words.size(); ++i) {
        if (words[i].empty() || (!fsUuidCommand && words[i][0] == '-'))
            continue;
        std::string prefix;
        words[i] = Tools::replaceVolumeId(words[i], fsIds, prefix);
        break;
    }
    return StringUtil::join(words, " ");
}

StepResult adjustGrubCfg(Ref<Keeper> keeper)
{
    // MBR partition ids are spelled "1a2b3c4d-02" in kernel options: the partition map has them.
    Tools::IdMaps ids;
    if (const auto stop = Tools::startIdStep(
            keeper, ids,
            {"Libraries::KRO::PostProcessing::Bootloader::adjustGrubCfg invalid fs ids, cannot add mapping for ",
             "Libraries::KRO::PostProcessing::Bootloader::adjustGrubCfg invalid partition ids, cannot add mapping "
             "for "},
            Channels::bootloader()))
        return *stop;
    Maps maps{std::move(ids.fsIds), std::move(ids.partitionIds), {}};
    maps.linuxIds = linuxIdMap(keeper);
    if (maps.fsIds.empty() && maps.partitionIds.empty() && maps.linuxIds.empty()) {
        LogMessage(Channels::bootloader(), LogDetail) << "No fs id, partition id or linux disk id mappings found, ";
        return StepResult::NothingFound;
    }
    return Tools::foldTargetFileSystems(keeper, [&](Platform::Filesys& fs) { return adjustFileSystem(fs, maps); });
}

} // namespace Libraries::KRO::PostProcessing::Bootloader
