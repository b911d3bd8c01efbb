#include "tests/support/hive_tools.h"

#include "tests/support/command.h"

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

} // namespace TestSupport
