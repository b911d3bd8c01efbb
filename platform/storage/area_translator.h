#pragma once
// Where a copy put the sectors of its source disk: a map from source sectors to target sectors.

#include "platform/core/area.h"
#include "platform/core/ref.h"

#include <optional>
#include <vector>

namespace Interfaces {

class AreaTranslator : public virtual Platform::RefCount {
public:
    // The target areas that hold a source area, in the source's order; nothing when a sector of
    // it was not copied sector by sector (a file copy puts data where its file system wants).
    virtual std::optional<std::vector<Platform::Area>> translate(const Platform::Area& source) const = 0;
};

} // namespace Interfaces

namespace Platform {

// A translator made of runs copied whole: count sectors from sourceStart went to targetStart.
class RangeTranslator : public Object, public virtual Interfaces::AreaTranslator {
public:
    struct Range {
        std::uint64_t sourceStart;
        std::uint64_t targetStart;
        std::uint64_t count;
    };

    // Ranges may come in any order; overlapping source ranges are refused (null).
    static Ref<RangeTranslator> create(std::vector<Range> ranges);

    std::optional<std::vector<Area>> translate(const Area& source) const override;

    explicit RangeTranslator(std::vector<Range> ranges) : ranges_(std::move(ranges)) {}

private:
    std::vector<Range> ranges_; // sorted by source start
};

} // namespace Platform
