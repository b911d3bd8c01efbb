#pragma once
// A run of sectors: the first and how many.

#include <cstdint>
#include <vector>

namespace Platform {

struct Area {
    std::uint64_t start;
    std::uint64_t count;
    bool operator==(const Area&) const = default;
};

// Adds an area to a list, joining it to the last one when it continues it.
inline void appendArea(std::vector<Area>& areas, Area area)
{
    if (area.count == 0)
        return;
    if (!areas.empty() && areas.back().start + areas.back().count == area.start)
        areas.back().count += area.count;
    else
        areas.push_back(area);
}

} // namespace Platform
