#include "platform/core/string_util.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/pp_handler.h"

namespace Libraries::KRO::PostProcessing {

namespace {

using Platform::StrConv;

constexpr const char* kTypeName = "LINUXID";

// The line numbers are those the assertion texts carry.
void assertCondition(bool holds, const char* condition, int line)
{
    if (!holds)
        LogMessage(Channels::handler(), LogError)
            << "ASSERT CONDITION " << condition << " FAILED IN LINE " << line << ", FUNCTION "
            << "Libraries::KRO::PostProcessing::addLinuxIdString";
}

// An element of a name or serial list as text: a string as it is, a number in decimal.
std::string elementText(const Variant& element)
{
    if (const auto* text = element.asString())
        return *text;
    if (const auto number = element.asInteger())
        return StrConv::str(*number);
    return {};
}

std::vector<std::string> elements(const Variant& list)
{
    std::vector<std::string> texts;
    if (const auto* items = list.asList()) {
        for (const auto& item : *items)
            texts.push_back(elementText(item.value));
    } else if (list.type() != Variant::Type::Empty) {
        texts.push_back(elementText(list));
    }
    return texts;
}

// One of the four inputs: its primary element, and the alternatives that go unused.
struct IdPart {
    const char* missingText;
    const char* alternativeText;
    std::vector<std::string> texts;
    std::string primary() const { return texts.empty() ? std::string() : texts.front(); }
};

std::string idString(const std::string& name, const std::string& serial, u64 partIdx)
{
    std::string text = Platform::StringUtil::replace(name, ' ', '_') + "_" + serial;
    if (partIdx != kNoPartition)
        text += "-part" + StrConv::str(partIdx + 1);
    return text;
}

bool addLinuxIdString(Ref<Keeper> keeper, u64 id, const Variant& fromName, const Variant& fromSerial, u64 fromPartIdx,
                      const Variant& toName, const Variant& toSerial, u64 toPartIdx)
{
    assertCondition(keeper != nullptr, "keeper != nullptr", 666);
    assertCondition((fromPartIdx != kNoPartition) == (toPartIdx != kNoPartition),
                    "(fromPartIdx != ((u64)0xffffffffffffffffULL)) == (toPartIdx != ((u64)0xffffffffffffffffULL))",
                    667);
    const bool forPartition = fromPartIdx != kNoPartition;
    const IdPart parts[] = {
        {"Libraries::KRO::PostProcessing::addLinuxIdString: no from disk name", "Not adding additional from disk name ",
         elements(fromName)},
        {"Libraries::KRO::PostProcessing::addLinuxIdString: no from disk serial",
         "Not adding additional from disk serial ", elements(fromSerial)},
        {"Libraries::KRO::PostProcessing::addLinuxIdString: no to disk name", "Not adding additional to disk name ",
         elements(toName)},
        {"Libraries::KRO::PostProcessing::addLinuxIdString: no to disk serial", "Not adding additional to disk serial ",
         elements(toSerial)},
    };

    bool complete = true;
    for (const auto& part : parts) {
        if (!part.primary().empty())
            continue;
        complete = false;
        if (forPartition)
            LogMessage(Channels::handler(), LogDetail) << part.missingText;
    }
    // Only the primary name and serial are used; a partition call says which alternatives it drops.
    for (const auto& part : parts)
        for (std::size_t i = 1; forPartition && i < part.texts.size(); ++i)
            if (!part.texts[i].empty() && part.texts[i] != part.primary())
                LogMessage(Channels::handler(), LogDetail) << part.alternativeText << part.texts[i];
    if (!complete || !keeper)
        return true;

    const std::string oldId = idString(parts[0].primary(), parts[1].primary(), fromPartIdx);
    const std::string newId = idString(parts[2].primary(), parts[3].primary(), toPartIdx);
    LogMessage(Channels::handler(), LogDetail) << "Setting linux mapping from " << oldId << " to " << newId;
    keeper->addEntry(KindLinuxIdString, {Variant::string(oldId, kTypeName)}, {Variant::string(newId, kTypeName)}, id,
                     0);
    return true;
}

// Both adders' checks: a keeper, and an entry of the kind they add to; false after the log line.
bool isEntryOfKind(const Ref<Keeper>& keeper, u64 id, u64 kind, const char* name)
{
    if (!keeper) {
        LogMessage(Channels::handler(), LogError) << name << "No keeper";
        return false;
    }
    if (keeper->getKind(id) != kind) {
        LogMessage(Channels::handler(), LogError) << name << "Incorrect ID type";
        return false;
    }
    return true;
}

} // namespace

bool PPHandler::addLinuxDiskIdString(Ref<Keeper> keeper, u64 id, const Variant& fromDiskName,
                                     const Variant& fromDiskSerial, const Variant& toDiskName,
                                     const Variant& toDiskSerial)
{
    constexpr const char* kName = "Libraries::KRO::PostProcessing::PPHandler::addLinuxDiskIdString: ";
    if (!isEntryOfKind(keeper, id, KindDisk, kName))
        return false;
    return addLinuxIdString(keeper, id, fromDiskName, fromDiskSerial, kNoPartition, toDiskName, toDiskSerial,
                            kNoPartition);
}

bool PPHandler::addLinuxPartIdString(Ref<Keeper> keeper, u64 id, const Variant& fromDiskName,
                                     const Variant& fromDiskSerial, u64 fromPartIdx, const Variant& toDiskName,
                                     const Variant& toDiskSerial, u64 toPartIdx)
{
    constexpr const char* kName = "Libraries::KRO::PostProcessing::PPHandler::addLinuxPartIdString: ";
    if (!isEntryOfKind(keeper, id, KindPartition, kName))
        return false;
    if (fromPartIdx == kNoPartition) {
        LogMessage(Channels::handler(), LogError) << "Invalid from partidx " << std::int64_t(fromPartIdx);
        return false;
    }
    if (toPartIdx == kNoPartition) {
        LogMessage(Channels::handler(), LogError) << "Invalid to partidx: " << std::int64_t(toPartIdx);
        return false;
    }
    return addLinuxIdString(keeper, id, fromDiskName, fromDiskSerial, fromPartIdx, toDiskName, toDiskSerial, toPartIdx);
}

} // namespace Libraries::KRO::PostProcessing
