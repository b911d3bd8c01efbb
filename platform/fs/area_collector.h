#pragma once
// A file's allocation built from the runs of bytes its family walks in file order: byte runs
// become sector areas, a run that continues the previous area joins it, and what lies past the
// end of the file is left out.

#include "platform/fs/filesys.h"

namespace Platform {

class AreaCollector {
public:
    AreaCollector(std::uint32_t sectorSize, std::uint64_t fileSize);

    // The next run of the file: bytes at byteOffset of the storage. false (Error Corrupt) when
    // the run does not start and end on sector boundaries.
    [[nodiscard]] bool add(std::uint64_t byteOffset, std::uint64_t bytes);
    // Whether the runs added so far hold the whole file.
    bool complete() const { return missing_ == 0; }
    std::vector<Area> take() { return std::move(areas_); }

private:
    std::uint32_t sectorSize_;
    std::uint64_t missing_; // bytes of the file, rounded up to whole sectors, not yet placed
    std::vector<Area> areas_;
};

} // namespace Platform
