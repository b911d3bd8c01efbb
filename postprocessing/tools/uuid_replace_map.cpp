#include "postprocessing/tools/uuid_replace_map.h"

#include "platform/core/string_util.h"
#include "platform/partman/partition.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/format_fs_id.h"
#include "postprocessing/tools/storage_resolution.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace Libraries::KRO::PostProcessing::Tools {

namespace {

// The big-endian text and, for 16-byte ids, the Windows text of an id object.
std::pair<std::string, std::string> idTexts(const ObjectRef& object)
{
    const auto bytes = Platform::refCast<ByteArray>(object);
    if (!bytes)
        return {};
    const auto bigEndian = formatFsID(bytes, UUIDHelper::BigEndian);
    const auto windows = bytes->size() == 16 ? formatFsID(bytes, UUIDHelper::MixedEndian) : Ref<String>();
    return {bigEndian ? Platform::StringUtil::lower(bigEndian->str()) : std::string(),
            windows ? Platform::StringUtil::lower(windows->str()) : std::string()};
}

// "1a2b3c4d-01": the signature, and the entry number as older files on such systems spell it
// (decimal, and "-010" for the tenth partition).
std::string decimalMbrForm(u32 signature, u32 entry)
{
    return Platform::StringUtil::lower(Platform::StrConv::str(signature, 16, 8) + (entry < 10 ? "-0" : "-") +
                                       Platform::StrConv::str(std::uint64_t(entry + 1)));
}

// Adds old -> new unless old is a key already; false, after the log line, when it is.
bool insertNew(UuidReplaceMap& map, const std::string& oldText, const std::string& newText)
{
    if (map.count(oldText)) {
        LogMessage(Channels::tools(), LogError)
            << "Libraries::KRO::PostProcessing::Tools::addUuidMapId Source value already exists: " << oldText;
        return false;
    }
    map[oldText] = newText;
    return true;
}

// NTFS serials as Linux spells them (blkid, fstab UUID=): 16 hex digits without the dash.
std::string withoutDash(const std::string& text)
{
    return Platform::StringUtil::replace(text, "-", "");
}

} // namespace

std::string linuxMbrPartitionId(u32 signature, u32 entry)
{
    return Platform::StringUtil::lower(Platform::StrConv::str(signature, 16, 8) + "-" +
                                       Platform::StrConv::str(entry + 1, 16, 2));
}

StepResult addUuidMapId(const Ref<Keeper>& keeper, u64 index, UuidReplaceMap& map)
{
    const auto [oldText, oldWindows] = idTexts(keeper->getFromObject(index));
    const auto [newText, newWindows] = idTexts(keeper->getToObject(index));
    if (oldText.empty() || newText.empty())
        return StepResult::NothingFound;
    if (!insertNew(map, oldText, newText))
        return StepResult::Failed;
    if (!oldWindows.empty() && !newWindows.empty()) {
        if (oldWindows == oldText) {
            LogMessage(Channels::tools(), LogError)
                << "Libraries::KRO::PostProcessing::Tools::addUuidMapId "
                << "from UUID identical for BigEndian and Windows representation: " << oldText;
        } else if (!insertNew(map, oldWindows, newWindows)) {
            return StepResult::Failed;
        }
    }
    const auto oldBytes = Platform::refCast<ByteArray>(keeper->getFromObject(index));
    if (oldBytes->size() == 8 && !insertNew(map, withoutDash(oldText), withoutDash(newText)))
        return StepResult::Failed;
    return StepResult::Ok;
}

void mapLinuxMbrPartitionIds(UuidReplaceMap& map)
{
    std::vector<std::string> removed;
    std::vector<std::pair<std::string, std::string>> added;
    for (const auto& [key, value] : map) {
        UUID from, to;
        if (!UUIDHelper::parse(String::create(key), from) || !UUIDHelper::parse(String::create(value), to))
            continue;
        u32 oldSignature = 0, oldEntry = 0, newSignature = 0, newEntry = 0;
        if (!Platform::Partition::getDiskIDAndEntryFromUUID(from.toBytes(), oldSignature, oldEntry) ||
            !Platform::Partition::getDiskIDAndEntryFromUUID(to.toBytes(), newSignature, newEntry))
            continue;
        const std::string oldForm = decimalMbrForm(oldSignature, oldEntry);
        const std::string newForm = decimalMbrForm(newSignature, newEntry);
        LogMessage(Channels::tools(), LogDetail) << "Mapping Linux MBR Partition ID " << oldForm << " to " << newForm;
        removed.push_back(key);
        added.emplace_back(oldForm, newForm);
        // From the tenth partition on, the kernel (PARTUUID, blkid) numbers in hex: "-0a".
        if (oldEntry >= 9)
            added.emplace_back(linuxMbrPartitionId(oldSignature, oldEntry),
                               linuxMbrPartitionId(newSignature, newEntry));
    }
    for (const auto& key : removed)
        map.erase(key);
    for (const auto& [oldForm, newForm] : added)
        map[oldForm] = newForm;
}

HexCase classifyHexCase(const std::string& text)
{
    bool upper = false, lower = false;
    for (char c : text) {
        upper |= c >= 'A' && c <= 'F';
        lower |= c >= 'a' && c <= 'f';
    }
    return upper && lower ? HexCase::Mixed : lower ? HexCase::Lower : upper ? HexCase::Upper : HexCase::None;
}

std::string replaceVolumeId(const std::string& entry, const UuidReplaceMap& map, std::string& prefix)
{
    if (map.empty())
        return entry;
    if (prefix.empty()) {
        const auto equals = entry.rfind('=');
        if (equals != std::string::npos)
            prefix = entry.substr(0, equals + 1);
        else
            LogMessage(Channels::tools(), LogDetail) << "empty prefix found in " << entry;
    }
    if (prefix.size() >= entry.size()) {
        LogMessage(Channels::tools(), LogDetail) << "Prefix " << prefix << " too long for entry " << entry;
        return entry;
    }
    const std::string id = entry.substr(prefix.size());
    LogMessage(Channels::tools(), LogDetail) << "Searching for volume id '" << id << "'";
    const auto found = map.find(Platform::StringUtil::lower(id));
    if (found == map.end()) {
        LogMessage(Channels::tools(), LogDetail) << "uuid not found in replacemap";
        return entry;
    }
    switch (classifyHexCase(id)) {
    case HexCase::Upper:
        return prefix + Platform::StringUtil::upper(found->second);
    case HexCase::Lower:
        return prefix + Platform::StringUtil::lower(found->second);
    case HexCase::Mixed:
        LogMessage(Channels::tools(), LogDetail) << "Mixed case uuid";
        return prefix + found->second;
    case HexCase::None:
        break;
    }
    return prefix + found->second;
}

namespace {

// Fills map from every keeper entry of kind; false after the log line of the first that fails.
bool buildUuidMap(const Ref<Keeper>& keeper, u64 kind, UuidReplaceMap& map, const char* failureText,
                  Platform::LogChannel channel)
{
    for (const u64 entry : entriesOf(*keeper, kind)) {
        const StepResult result = addUuidMapId(keeper, entry, map);
        if (result != StepResult::NothingFound && result != StepResult::Ok) {
            LogMessage(channel, LogError) << failureText << entryLogName(*keeper, entry) << " : " << u32(result);
            return false;
        }
    }
    return true;
}

} // namespace

bool buildIdMaps(const Ref<Keeper>& keeper, IdMaps& maps, const char* fsFailureText, const char* partitionFailureText,
                 Platform::LogChannel channel)
{
    if (!buildUuidMap(keeper, KindVolumeIdChange, maps.fsIds, fsFailureText, channel) ||
        !buildUuidMap(keeper, KindPartitionUuidChange, maps.partitionIds, partitionFailureText, channel))
        return false;
    mapLinuxMbrPartitionIds(maps.partitionIds);
    return true;
}

std::optional<StepResult> startIdStep(const Ref<Keeper>& keeper, IdMaps& maps, const IdMapTexts& texts,
                                      Platform::LogChannel channel)
{
    if (keeperMissing(keeper, channel) || !buildIdMaps(keeper, maps, texts.fsFailure, texts.partitionFailure, channel))
        return StepResult::Failed;
    if (texts.noMapping && maps.empty()) {
        LogMessage(channel, texts.noMappingLevel) << texts.noMapping;
        return StepResult::NothingFound;
    }
    return std::nullopt;
}

} // namespace Libraries::KRO::PostProcessing::Tools
