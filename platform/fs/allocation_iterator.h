#pragma once
// A file's allocation handed out a few areas per call, the way boot-loader installers collect it.

#include "platform/fs/filesys.h"

namespace Platform {

class AllocationIterator : public Object {
public:
    static constexpr std::size_t kAreasPerCall = 8;

    // Null (Error set) when the file's family cannot say where it lies.
    static Ref<AllocationIterator> create(File& file);

    // Fills up to count slots with the next areas, in file order; how many it filled, 0 at the end.
    std::size_t next(Area* slots, std::size_t count = kAreasPerCall);

    explicit AllocationIterator(std::vector<Area> areas) : areas_(std::move(areas)) {}

private:
    std::vector<Area> areas_;
    std::size_t position_ = 0;
};

} // namespace Platform
