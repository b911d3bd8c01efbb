#include "cli/report.h"

#include "cli/dry_run.h"
#include "cli/step_costs.h"
#include "cli/step_names.h"
#include "platform/core/bytes.h"
#include "platform/core/string_util.h"
#include "platform/partman/partition.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/not_applied_id.h"
#include "postprocessing/pipeline.h"
#include "postprocessing/step_labels.h"
#include "postprocessing/tools/format_fs_id.h"
#include "postprocessing/tools/uuid_replace_map.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace Cli {

namespace PP = Libraries::KRO::PostProcessing;
using Platform::StrConv;

namespace {

// Disk signatures and MBR partition ids as Linux shows them (PTUUID 1a2b3c4d, PARTUUID
// 1a2b3c4d-01, 1a2b3c4d-0c), GPT GUIDs mixed-endian, file-system UUIDs (byte strings on disk)
// big-endian, FAT and NTFS serials as blkid shows them.
std::string idText(PP::u64 kind, const PP::ObjectRef& object)
{
    const auto bytes = Platform::refCast<PP::ByteArray>(object);
    if (!bytes)
        return {};
    if (kind == PP::KindDiskIdChange && bytes->size() == 4)
        return Platform::StringUtil::lower(StrConv::str(Platform::ByteView(bytes->bytes()).u32(0), 16, 8));
    if (kind == PP::KindPartitionUuidChange && bytes->size() == 16) {
        Platform::Guid uuid{};
        std::copy(bytes->bytes().begin(), bytes->bytes().end(), uuid.begin());
        std::uint32_t signature = 0, entry = 0;
        if (Platform::Partition::getDiskIDAndEntryFromUUID(uuid, signature, entry))
            return PP::Tools::linuxMbrPartitionId(signature, entry);
    }
    if (kind == PP::KindVolumeIdChange && bytes->size() == 8) // NTFS, as blkid shows it
        return Platform::StringUtil::replace(PP::Tools::formatFsID(bytes, PP::UUIDHelper::BigEndian)->str(), "-", "");
    if (bytes->size() == 4 || bytes->size() == 16) {
        const auto format = kind == PP::KindVolumeIdChange ? PP::UUIDHelper::BigEndian : PP::UUIDHelper::MixedEndian;
        if (auto text = PP::Tools::formatFsID(bytes, format))
            return text->str();
    }
    return PP::Tools::hexBytes(bytes.get());
}

nlohmann::ordered_json ioJson(const Platform::StorageCounters& counters)
{
    return {{"sectors_read", counters.sectorsRead},
            {"sectors_written", counters.sectorsWritten},
            {"bytes_written", counters.bytesWritten}};
}

nlohmann::ordered_json changesJson(const StepChanges& changes)
{
    nlohmann::ordered_json sectors = nlohmann::ordered_json::array();
    for (const auto& target : changes.sectors) {
        nlohmann::ordered_json ranges = nlohmann::ordered_json::array();
        for (const auto& range : target.ranges)
            ranges.push_back({{"first", range.first}, {"count", range.count}});
        sectors.push_back(
            {{"target", target.target}, {"count", Platform::sectorCount(target.ranges)}, {"ranges", ranges}});
    }
    nlohmann::ordered_json files = nlohmann::ordered_json::array();
    for (const auto& edit : changes.files) {
        files.push_back({{"volume", edit.volume},
                         {"path", edit.change.path},
                         {"change", changeWord(edit.change.kind)},
                         {"size_before", edit.change.sizeBefore},
                         {"size_after", edit.change.sizeAfter}});
        if (edit.change.isText())
            files.back()["diff"] = edit.diff;
    }
    return {{"sectors", sectors}, {"files", files}};
}

// Each step that would change something: its sectors per target, and its files with their diffs.
std::string changesText(const DryRun& dryRun)
{
    std::string text = "\ndry run: nothing was written; the run would change:\n";
    bool any = false;
    for (int slot = 0; slot < PP::kStepCount; ++slot) {
        const StepChanges& changes = dryRun.of(slot);
        if (changes.sectors.empty() && changes.files.empty())
            continue;
        any = true;
        text += "  " + std::to_string(slot) + " " + std::string(stepName(slot)) + ":\n";
        for (const auto& target : changes.sectors) {
            const std::uint64_t count = Platform::sectorCount(target.ranges);
            text += "    " + target.target + ": " + std::to_string(count) + (count == 1 ? " sector (" : " sectors (") +
                    rangeText(target.ranges) + ")\n";
        }
        for (const auto& edit : changes.files) {
            text += "    " + edit.volume + ": " + edit.change.path + " " + changeWord(edit.change.kind);
            if (!edit.change.isText() && edit.change.kind != Platform::FileChange::Kind::DirectoryCreated)
                text += " (" + std::to_string(edit.change.sizeBefore) + " -> " +
                        std::to_string(edit.change.sizeAfter) + " bytes)";
            text += "\n";
            for (const auto& line : Platform::StringUtil::split(edit.diff, "\n"))
                if (!line.empty())
                    text += "      " + line + "\n";
        }
    }
    return any ? text : text + "  nothing\n";
}

std::string padded(std::string_view text, std::size_t width)
{
    std::string result(text);
    if (result.size() < width)
        result.append(width - result.size(), ' ');
    return result;
}

} // namespace

std::vector<Mapping> recordedMappings(const PP::Keeper& keeper)
{
    std::vector<Mapping> mappings;
    for (PP::u64 kind : {PP::KindDiskIdChange, PP::KindPartitionUuidChange, PP::KindVolumeIdChange})
        for (const PP::u64 index : PP::entriesOf(keeper, kind)) {
            const auto notApplied = Platform::refCast<PP::NotAppliedId>(keeper.getToObject(index));
            const PP::ObjectRef newId = notApplied ? PP::ObjectRef(notApplied->attempted()) : keeper.getToObject(index);
            mappings.push_back({kind, keeper.getId(index), idText(kind, keeper.getFromObject(index)),
                                idText(kind, newId), !notApplied});
        }
    return mappings;
}

std::string textReport(const PP::Keeper& keeper, const std::vector<Refusal>& refused, const DryRun* dryRun)
{
    std::string text = padded("slot", 5) + padded("name", 20) + padded("label", 36) + "result\n";
    for (int slot = 0; slot < PP::kStepCount; ++slot)
        text += padded(std::to_string(slot), 5) + padded(stepName(slot), 20) + padded(PP::stepLabel(slot), 36) +
                PP::resultWord(keeper.getResult(slot)) + "\n";
    const auto mappings = recordedMappings(keeper);
    if (!mappings.empty())
        text += "\nid changes (kind, entry, old -> new):\n";
    for (const auto& mapping : mappings)
        text += "  " + std::to_string(mapping.kind) + "  " + std::to_string(mapping.entry) + "  " +
                (mapping.oldId.empty() ? "-" : mapping.oldId) + " -> " + (mapping.newId.empty() ? "-" : mapping.newId) +
                (mapping.applied ? "" : "  (not applied: the write failed)") + "\n";
    if (!refused.empty())
        text += "\nrefused (nothing written):\n";
    for (const auto& refusal : refused)
        text += "  " + refusal.target + ": " + refusal.what + ": " + refusal.why + "\n";
    if (dryRun)
        text += changesText(*dryRun);
    return text;
}

std::string jsonReport(const PP::Keeper& keeper, const std::vector<Refusal>& refused, const StepCosts* costs,
                       const DryRun* dryRun)
{
    nlohmann::ordered_json steps = nlohmann::ordered_json::array();
    for (int slot = 0; slot < PP::kStepCount; ++slot) {
        const PP::StepResult result = keeper.getResult(slot);
        steps.push_back({{"slot", slot},
                         {"name", stepName(slot)},
                         {"label", PP::stepLabel(slot)},
                         {"result", static_cast<PP::u32>(result)},
                         {"word", PP::resultWord(result)}});
        if (costs)
            steps.back()["io"] = ioJson(costs->of(slot));
        if (dryRun)
            steps.back()["would_change"] = changesJson(dryRun->of(slot));
    }
    nlohmann::ordered_json mappings = nlohmann::ordered_json::array();
    for (const auto& mapping : recordedMappings(keeper))
        mappings.push_back(
            {{"kind", mapping.kind},
             {"entry", mapping.entry},
             {"old", mapping.oldId.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(mapping.oldId)},
             {"new", mapping.newId},
             {"applied", mapping.applied}});
    nlohmann::ordered_json refusals = nlohmann::ordered_json::array();
    for (const auto& refusal : refused)
        refusals.push_back({{"target", refusal.target}, {"what", refusal.what}, {"why", refusal.why}});
    nlohmann::ordered_json report{
        {"dry_run", dryRun != nullptr}, {"steps", steps}, {"mappings", mappings}, {"refused", refusals}};
    if (costs) {
        const Platform::StorageCounters total = costs->total();
        report["io"] = ioJson(total);
        report["io"]["read_calls"] = total.readCalls;
        report["io"]["write_calls"] = total.writeCalls;
        report["io"]["retried_sectors"] = total.retriedSectors;
        report["io"]["flushes"] = total.flushes;
    }
    return report.dump(2) + "\n";
}

std::string stepList()
{
    std::string text;
    for (int slot = 0; slot < PP::kStepCount; ++slot)
        text += padded(std::to_string(slot), 4) + padded(stepName(slot), 20) + PP::stepLabel(slot) + "\n";
    return text;
}

bool anyStepFailed(const PP::Keeper& keeper)
{
    for (int slot = 0; slot < PP::kStepCount; ++slot)
        if (keeper.getResult(slot) == PP::StepResult::Failed)
            return true;
    return false;
}

} // namespace Cli
