#include "postprocessing/tools/device_reference.h"

#include "platform/core/string_util.h"

namespace Libraries::KRO::PostProcessing::Tools {

namespace {

struct ReferenceForm {
    const char* prefix;
    bool partition;
};
constexpr ReferenceForm kForms[] = {
    {"UUID=", false}, {"/dev/disk/by-uuid/", false}, {"PARTUUID=", true}, {"/dev/disk/by-partuuid/", true}};

bool quoted(const std::string& text)
{
    return text.size() >= 2 && (text.front() == '"' || text.front() == '\'') && text.back() == text.front();
}

} // namespace

std::string rewriteDeviceReference(const std::string& reference, const IdMaps& maps)
{
    if (quoted(reference)) {
        const std::string inner = reference.substr(1, reference.size() - 2);
        return reference.front() + rewriteDeviceReference(inner, maps) + reference.back();
    }
    for (const auto& form : kForms) {
        if (!Platform::StringUtil::startsWith(reference, form.prefix))
            continue;
        std::string prefix = form.prefix;
        return replaceVolumeId(reference, form.partition ? maps.partitionIds : maps.fsIds, prefix);
    }
    return reference;
}

std::string rewriteWords(const std::string& text, const std::function<bool(std::size_t index)>& pick,
                         const std::function<std::string(const std::string& word)>& rewrite)
{
    std::string result;
    result.reserve(text.size());
    std::size_t index = 0;
    for (std::size_t position = 0; position < text.size();) {
        const auto start = text.find_first_not_of(" \t", position);
        result.append(text, position, (start == std::string::npos ? text.size() : start) - position);
        if (start == std::string::npos)
            break;
        const auto end = std::min(text.find_first_of(" \t", start), text.size());
        const std::string word = text.substr(start, end - start);
        result += pick(index++) ? rewrite(word) : word;
        position = end;
    }
    return result;
}

} // namespace Libraries::KRO::PostProcessing::Tools
