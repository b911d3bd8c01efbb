#include "postprocessing/linux/fstab.h"

#include "platform/core/error.h"
#include "platform/core/string_util.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/file_tools.h"
#include "postprocessing/tools/text_rewrite.h"

namespace Libraries::KRO::PostProcessing::Linux {

namespace {

using Platform::StringUtil;

// The device-field forms, in the order they are tested, and whether they name partitions.
struct DeviceForm {
    const char* prefix;
    bool partition;
};
constexpr DeviceForm kForms[] = {
    {"UUID=", false}, {"/dev/disk/by-uuid/", false}, {"PARTUUID=", true}, {"/dev/disk/by-partuuid/", true}};

// The mount table of a file system: "/etc/fstab", or "/fstab" on a partition mounted as /etc.
// unreadable: one of them is there but could not be opened (a damaged file system, say).
Ref<Platform::File> openMountTable(Platform::Filesys& fs, std::string& where, bool& unreadable)
{
    for (const char* path : {"/etc/fstab", "/fstab"}) {
        if (auto file = Tools::openExistingFile(fs, path, Channels::linuxSys())) {
            where = path;
            return file;
        }
        unreadable |= Platform::Error::get() != Platform::Error::PathNotFound;
    }
    return {};
}

// Rewrites one mount table; the step's result for it.
StepResult adjustMountTable(const Ref<Platform::File>& table, const std::string& where, const UuidReplaceMap& fsIds,
                            const UuidReplaceMap& partitionIds)
{
    const auto temporary = createTempFile();
    if (!temporary)
        return StepResult::Failed;
    Platform::LineReader reader(table);
    Platform::LineWriter writer(temporary);
    StepResult result = adjustFstabLines(reader, writer, fsIds, partitionIds);
    if (reader.failed())
        LogMessage(Channels::linuxSys(), LogError) << "Could not read " << where << " to its end (error "
                                                   << Platform::Error::get() << "); it keeps naming the old ids";
    if (result != StepResult::Failed && (reader.failed() || !writer.finish())) {
        LogMessage(Channels::linuxSys(), LogError) << "Failed to write line";
        result = StepResult::Failed;
    }
    switch (result) {
    case StepResult::Ok:
        if (!Tools::copyFile(temporary, table) || !table->flush())
            LogMessage(Channels::linuxSys(), LogError) << "Failed to write changed fstab back to disk";
        break;
    case StepResult::NothingFound:
        LogMessage(Channels::linuxSys(), LogDetail) << "No fstab or noting to change in fstab found";
        break;
    default:
        LogMessage(Channels::linuxSys(), LogWarning) << "Adjust failed, not writing updated fstab";
        break;
    }
    return result;
}

} // namespace

std::string replaceFstabLine(const std::string& line, const UuidReplaceMap& map, std::string& prefix)
{
    if (map.empty())
        return line;
    const auto end = line.find_first_of(" \t");
    if (end == 0 || end == std::string::npos) {
        LogMessage(Channels::linuxSys(), LogDetail) << "Unsupported fstab line" << line;
        return line;
    }
    const std::string field = line.substr(0, end);
    const std::string rest = line.substr(end);
    if (prefix.empty()) {
        const auto equals = field.find('=');
        if (equals == 0 || equals == std::string::npos) {
            LogMessage(Channels::linuxSys(), LogDetail) << "Unsupported volume identifier in line" << line;
            return line;
        }
        prefix = field.substr(0, equals);
    }
    if (prefix.size() >= field.size()) {
        LogMessage(Channels::linuxSys(), LogDetail) << "Prefix " << prefix << " too long for volume id ";
        LogMessage(Channels::linuxSys(), LogDetail) << " of line " << line;
        return line;
    }
    // Blanks in a device field are written as \040; ids are compared decoded.
    const std::string id = StringUtil::replace(field.substr(prefix.size()), "\\040", " ");
    LogMessage(Channels::linuxSys(), LogDetail) << "Searching for volume id '" << id << "'";
    std::string idPrefix;
    const std::string replaced = Tools::replaceVolumeId(id, map, idPrefix);
    if (replaced == id)
        return line;
    return prefix + StringUtil::replace(replaced, " ", "\\040") + rest;
}

StepResult adjustFstabLines(Platform::LineReader& reader, Platform::LineWriter& writer, const UuidReplaceMap& fsIds,
                            const UuidReplaceMap& partitionIds)
{
    StepResult result = StepResult::NothingFound;
    while (auto line = reader.next()) {
        for (const auto& form : kForms) {
            if (!StringUtil::startsWith(line->text, form.prefix))
                continue;
            std::string prefix = form.prefix;
            std::string changed = replaceFstabLine(line->text, form.partition ? partitionIds : fsIds, prefix);
            if (changed != line->text) {
                LogMessage(Channels::linuxSys(), LogDetail) << "Replacing line " << line->text << " with " << changed;
                line->text = std::move(changed);
                result = StepResult::Ok;
            }
            break;
        }
        if (!writer.write(*line)) {
            LogMessage(Channels::linuxSys(), LogError) << "Failed to write line";
            return StepResult::Failed;
        }
    }
    return result;
}

StepResult adjustFstab(Ref<Keeper> keeper)
{
    Tools::IdMaps maps;
    if (const auto stop = Tools::startIdStep(
            keeper, maps,
            {"Libraries::KRO::PostProcessing::Linux::adjustFstab invalid fs ids, cannot add mapping for ",
             "Libraries::KRO::PostProcessing::Linux::adjustFstab invalid partition ids, cannot add mapping for ",
             "No fs or partition id mapping found ", LogError},
            Channels::linuxSys()))
        return *stop;
    StepResult result = StepResult::NothingFound;
    bool unreadable = false;
    for (const u64 partition : entriesOf(*keeper, KindPartition)) {
        const auto fs = Tools::getToFSItemFactory(keeper, partition, 1);
        std::string where;
        const auto table = fs ? openMountTable(*fs, where, unreadable) : Ref<Platform::File>();
        if (!table)
            continue;
        LogMessage(Channels::linuxSys(), LogDetail) << "Found fstab at " << where;
        const StepResult tableResult = adjustMountTable(table, where, maps.fsIds, maps.partitionIds);
        if (tableResult != StepResult::NothingFound)
            result = tableResult;
    }
    // A mount table that is there but cannot be read keeps naming the old ids: that fails.
    return unreadable ? StepResult::Failed : result;
}

} // namespace Libraries::KRO::PostProcessing::Linux
