#pragma once
// A file system whose changes a dry run's FileChangeLog records: each file opened for writing is
// read as it was, and recorded as it is when its last handle goes; removals and new directories
// are recorded as they happen.

#include "platform/fs/file_changes.h"

namespace Platform {

// fs, with what is done to its files recorded in the active log. volumePath or storage: as in
// FileChange.
Ref<Filesys> watchFilesys(Ref<Filesys> fs, std::string volumePath, Ref<Interfaces::Storage> storage);

} // namespace Platform
