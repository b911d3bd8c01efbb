#include "tests/support/hive_tools.h"

#include "tests/support/command.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <map>
#include <sstream>
#include <vector>

namespace TestSupport {

std::string hivexExport(const std::string& path, const std::string& key)
{
    const std::string raw = runTool({"hivexregedit", "--export", path, key});
    std::string text;
    for (std::size_t i = 0; i < raw.size();) {
        const auto c = static_cast<unsigned char>(raw[i]);
        const std::size_t length = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        bool valid = length && i + length <= raw.size();
        for (std::size_t k = 1; valid && k < length; ++k)
            valid = (static_cast<unsigned char>(raw[i + k]) >> 6) == 2;
        if (valid) {
            text.append(raw, i, length);
            i += length;
        } else {
            text += char(0xC0 | c >> 6);
            text += char(0x80 | (c & 0x3F));
            ++i;
        }
    }
    const std::string header = "Windows Registry Editor Version 5.00\n\n";
    return text.rfind(header, 0) == 0 ? text.substr(header.size()) : text;
}

std::set<std::string> regfexportItems(const std::string& path)
{
    std::set<std::string> items;
    std::istringstream in(runTool({"regfexport", path}));
    std::string line, key, value, type;
    while (std::getline(in, line)) {
        if (line.rfind("Key path: ", 0) == 0) {
            key = line.substr(10);
            key = key.find('\\') == std::string::npos ? "" : key.substr(key.find('\\'));
            items.insert(key);
        } else if (line.rfind("Value: ", 0) == 0) {
            value = line.substr(line.find(' ', 7) + 1);
        } else if (line.rfind("Type: ", 0) == 0) {
            const auto open = line.find('(');
            type = open == std::string::npos ? line.substr(6) : line.substr(open + 1, line.find(')') - open - 1);
        } else if (line.rfind("Data size: ", 0) == 0) {
            const bool text = type == "REG_SZ" || type == "REG_EXPAND_SZ";
            items.insert(key + "|" + value + "|" + type + "|" + (text ? "" : line.substr(11)));
        }
    }
    return items;
}

namespace {

const std::map<std::uint32_t, std::string> kTypeNames = {{0, "REG_NONE"},
                                                         {1, "REG_SZ"},
                                                         {2, "REG_EXPAND_SZ"},
                                                         {3, "REG_BINARY"},
                                                         {4, "REG_DWORD_LITTLE_ENDIAN"},
                                                         {5, "REG_DWORD_BIG_ENDIAN"},
                                                         {6, "REG_LINK"},
                                                         {7, "REG_MULTI_SZ"},
                                                         {8, "REG_RESOURCE_LIST"},
                                                         {9, "REG_FULL_RESOURCE_DESCRIPTOR"},
                                                         {10, "REG_RESOURCE_REQUIREMENTS_LIST"},
                                                         {11, "REG_QWORD_LITTLE_ENDIAN"}};

void collect(const Platform::Ref<Platform::Hive::KeyNode>& key, const std::string& path, std::set<std::string>& items)
{
    items.insert(path);
    const auto values = key->values();
    while (const auto value = values ? values->next() : nullptr) {
        const auto type = kTypeNames.find(value->type());
        char unknown[32];
        std::snprintf(unknown, sizeof unknown, "unknown: 0x%08x", value->type());
        const bool text = value->type() == 1 || value->type() == 2;
        items.insert(path + "|" + (value->name().empty() ? "(default)" : value->name()) + "|" +
                     (type == kTypeNames.end() ? std::string(unknown) : type->second) + "|" +
                     (text ? std::string() : std::to_string(value->stream()->size())));
    }
    const auto subkeys = key->subkeys();
    while (const auto child = subkeys ? subkeys->next() : nullptr)
        collect(child, path + "\\" + child->name(), items);
}

} // namespace

std::set<std::string> hiveItems(const Platform::Ref<Platform::Hive::KeyNode>& root)
{
    std::set<std::string> items;
    if (root)
        collect(root, "", items);
    return items;
}

std::string itemsDiffer(const std::set<std::string>& ours, const std::set<std::string>& theirs)
{
    std::vector<std::string> onlyOurs, onlyTheirs;
    std::set_difference(ours.begin(), ours.end(), theirs.begin(), theirs.end(), std::back_inserter(onlyOurs));
    std::set_difference(theirs.begin(), theirs.end(), ours.begin(), ours.end(), std::back_inserter(onlyTheirs));
    if (onlyOurs.empty() && onlyTheirs.empty())
        return "";
    return "only ours: " + (onlyOurs.empty() ? "-" : onlyOurs[0]) +
           "; only theirs: " + (onlyTheirs.empty() ? "-" : onlyTheirs[0]);
}

} // namespace TestSupport
