#include "cli/report.h"

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

std::string textReport(const PP::Keeper& keeper, const std::vector<Refusal>& refused)
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
    return text;
}

std::string jsonReport(const PP::Keeper& keeper, const std::vector<Refusal>& refused, const StepCosts* costs)
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
    nlohmann::ordered_json report{{"steps", steps}, {"mappings", mappings}, {"refused", refusals}};
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
