#pragma once
// A directory listing read in one go, handed out entry by entry.

#include "platform/fs/filesys.h"

#include <vector>

namespace Platform {

class ListedDirectory : public Directory {
public:
    explicit ListedDirectory(std::vector<DirectoryEntry> entries) : entries_(std::move(entries)) {}

    bool next(DirectoryEntry& entry) override
    {
        if (next_ >= entries_.size())
            return false;
        entry = entries_[next_++];
        return true;
    }

private:
    std::vector<DirectoryEntry> entries_;
    std::size_t next_ = 0;
};

} // namespace Platform
