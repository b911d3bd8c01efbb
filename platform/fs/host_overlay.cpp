#include "platform/fs/host_overlay.h"

namespace Platform {

std::shared_ptr<HostOverlay::Bytes> HostOverlay::contents(const std::string& hostPath) const
{
    const auto found = files_.find(hostPath);
    return found == files_.end() ? nullptr : found->second;
}

std::shared_ptr<HostOverlay::Bytes> HostOverlay::keep(const std::string& hostPath, Bytes bytes)
{
    removed_.erase(hostPath);
    auto& kept = files_[hostPath];
    kept = std::make_shared<Bytes>(std::move(bytes));
    return kept;
}

void HostOverlay::remove(const std::string& hostPath)
{
    files_.erase(hostPath);
    removed_.insert(hostPath);
}

bool HostOverlay::removed(const std::string& hostPath) const
{
    return removed_.count(hostPath) != 0;
}

void HostOverlay::makeDirectory(const std::string& hostPath)
{
    directories_.insert(hostPath);
}

bool HostOverlay::madeDirectory(const std::string& hostPath) const
{
    return directories_.count(hostPath) != 0;
}

std::vector<DirectoryEntry> HostOverlay::madeIn(const std::string& hostFolder) const
{
    const auto inFolder = [&](const std::string& path) {
        return path.size() > hostFolder.size() + 1 && path.compare(0, hostFolder.size(), hostFolder) == 0 &&
               path[hostFolder.size()] == '/' && path.find('/', hostFolder.size() + 1) == std::string::npos;
    };
    std::vector<DirectoryEntry> entries;
    for (const auto& [path, bytes] : files_)
        if (inFolder(path))
            entries.push_back({path.substr(hostFolder.size() + 1), 0, bytes->size()});
    for (const auto& path : directories_)
        if (inFolder(path))
            entries.push_back({path.substr(hostFolder.size() + 1), 1, 0});
    return entries;
}

} // namespace Platform
