#pragma once
// What a dry run did to host folders, kept in memory instead of on the host.

#include "platform/fs/filesys.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Platform {

// The files of host folders as a dry run left them, by host path: contents given, files removed,
// directories made.
class HostOverlay {
public:
    using Bytes = std::vector<std::uint8_t>;

    // The contents the run gave the file; null when the host's stand.
    std::shared_ptr<Bytes> contents(const std::string& hostPath) const;
    // From now on the file holds bytes (the host's copy, or nothing for a new file).
    std::shared_ptr<Bytes> keep(const std::string& hostPath, Bytes bytes);
    void remove(const std::string& hostPath);
    bool removed(const std::string& hostPath) const;
    void makeDirectory(const std::string& hostPath);
    bool madeDirectory(const std::string& hostPath) const;
    // What the run put directly in a host folder: files with their sizes, directories.
    std::vector<DirectoryEntry> madeIn(const std::string& hostFolder) const;

private:
    std::map<std::string, std::shared_ptr<Bytes>> files_;
    std::set<std::string> removed_;
    std::set<std::string> directories_;
};

} // namespace Platform
