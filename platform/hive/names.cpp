#include "platform/hive/names.h"

#include "platform/core/unicode.h"

#include <algorithm>

namespace Platform::Hive {

namespace {

char16_t upperUnit(char16_t unit)
{
    if (unit >= u'a' && unit <= u'z')
        return char16_t(unit - 0x20);
    if ((unit >= 0xE0 && unit <= 0xFE && unit != 0xF7) || (unit >= 0x3B1 && unit <= 0x3CB && unit != 0x3C2) ||
        (unit >= 0x430 && unit <= 0x44F))
        return char16_t(unit - 0x20);
    if (unit == 0xFF)
        return 0x178;
    if (unit >= 0x450 && unit <= 0x45F)
        return char16_t(unit - 0x50);
    // Latin Extended-A pairs its letters as upper then lower, apart from the dotless i and the
    // stretch where the pairs shift by one.
    if (unit >= 0x100 && unit <= 0x17E && unit != 0x131 && unit != 0x138 && unit != 0x149) {
        const bool shifted = (unit >= 0x139 && unit <= 0x148) || (unit >= 0x179 && unit <= 0x17E);
        if (shifted ? unit % 2 == 0 : unit % 2 == 1)
            return char16_t(unit - 1);
    }
    return unit;
}

} // namespace

StoredName storedName(const std::string& name)
{
    const std::u16string units = utf16(name);
    StoredName stored;
    stored.units = units.size();
    stored.compressed = std::all_of(units.begin(), units.end(), [](char16_t unit) { return unit <= 0xFF; });
    for (const char16_t unit : units) {
        stored.bytes.push_back(std::uint8_t(unit));
        if (!stored.compressed)
            stored.bytes.push_back(std::uint8_t(unit >> 8));
    }
    return stored;
}

std::u16string upperUnits(const std::string& name)
{
    std::u16string units = utf16(name);
    std::transform(units.begin(), units.end(), units.begin(), upperUnit);
    return units;
}

bool sameName(const std::string& a, const std::string& b)
{
    return upperUnits(a) == upperUnits(b);
}

bool sortsBefore(const std::string& a, const std::string& b)
{
    return upperUnits(a) < upperUnits(b);
}

std::uint32_t nameHash(const std::string& name)
{
    std::uint32_t hash = 0;
    for (const char16_t unit : upperUnits(name))
        hash = hash * 37 + unit;
    return hash;
}

std::uint32_t nameHint(const std::string& name)
{
    const std::u16string units = utf16(name);
    std::uint32_t hint = 0;
    for (std::size_t i = 0; i < std::min<std::size_t>(4, units.size()); ++i) {
        if (units[i] > 0xFF)
            return 0;
        hint |= std::uint32_t(units[i]) << (8 * i);
    }
    return hint;
}

} // namespace Platform::Hive
