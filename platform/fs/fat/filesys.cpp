#include "platform/fs/fat/filesys.h"

#include "platform/core/error.h"
#include "platform/core/string_util.h"
#include "platform/fs/fat/directory.h"
#include "platform/fs/fat/file.h"
#include "platform/fs/fat/layout.h"
#include "platform/fs/listed_directory.h"

#include <algorithm>
#include <set>

namespace Platform {

namespace A = Fat::Layout::Attribute;
using Fat::Node;

FatFilesys::FatFilesys(std::unique_ptr<Fat::AllocationTable> table, Access access)
    : FacadeBase(access), table_(std::move(table))
{
}

FatFilesys::~FatFilesys() = default;

Ref<FatFilesys> FatFilesys::open(Ref<Interfaces::Storage> storage, const Fat::BootSector& boot, Access access)
{
    if (!storage)
        return {};
    auto table = Fat::AllocationTable::load(std::move(storage), boot);
    if (!table)
        return {};
    return makeRef<FatFilesys>(std::make_unique<Fat::AllocationTable>(std::move(*table)), access);
}

// Walks the path case-insensitively; a directory met twice on the way is a loop.
std::optional<Node> FatFilesys::lookup(const std::string& path)
{
    Node node = Fat::rootDirectory(*table_);
    std::set<std::uint32_t> visited{node.firstCluster};
    for (const auto& part : StringUtil::split(path, "/")) {
        if (part.empty() || part == ".")
            continue;
        if (!node.isDirectory()) {
            Error::set(Error::PathNotFound);
            return std::nullopt;
        }
        const auto children = Fat::listDirectory(*table_, node);
        if (!children)
            return std::nullopt;
        const auto found = std::find_if(children->begin(), children->end(), [&](const Node& child) {
            return StringUtil::lower(child.name) == StringUtil::lower(part);
        });
        if (found == children->end()) {
            Error::set(Error::PathNotFound);
            return std::nullopt;
        }
        if (found->isDirectory() && part != ".." && !visited.insert(found->firstCluster).second) {
            Error::set(Error::Corrupt, "the directory '" + part + "' contains itself");
            return std::nullopt;
        }
        node = *found;
        if (node.isDirectory() && node.firstCluster == 0)
            node = Fat::rootDirectory(*table_); // ".." to the root
    }
    return node;
}

std::optional<Node> FatFilesys::createEntry(const std::string& path, std::uint8_t attributes,
                                            std::uint32_t firstCluster)
{
    const auto [parentPath, name] = splitParent(path);
    const auto parent = lookup(parentPath);
    if (!parent)
        return std::nullopt;
    if (!parent->isDirectory()) {
        Error::set(Error::NotDirectory);
        return std::nullopt;
    }
    return Fat::addEntry(*table_, *parent, name, attributes, firstCluster);
}

Ref<File> FatFilesys::openExisting(const std::string& path, Access access)
{
    const auto node = lookup(path);
    if (!node)
        return {};
    if (node->isDirectory()) {
        Error::set(Error::IsDirectory);
        return {};
    }
    return makeRef<Fat::FatFile>(Ref<Object>(this), *table_, *node, access == Access::ReadWrite);
}

bool FatFilesys::createEmptyFile(const std::string& path)
{
    return createEntry(path, A::kArchive, 0).has_value(); // as new files get
}

Ref<Directory> FatFilesys::openDirectory(const std::string& path)
{
    const auto node = lookup(path);
    if (!node)
        return {};
    if (!node->isDirectory()) {
        Error::set(Error::NotDirectory);
        return {};
    }
    const auto children = Fat::listDirectory(*table_, *node);
    if (!children)
        return {};
    std::vector<DirectoryEntry> entries;
    for (const auto& child : *children)
        if (child.name != "." && child.name != "..")
            entries.push_back({child.name, child.isDirectory() ? 1u : 0u, child.size});
    return makeRef<ListedDirectory>(std::move(entries));
}

bool FatFilesys::makeDirectory(const std::string& path)
{
    const auto parent = lookup(splitParent(path).first);
    const auto cluster = parent ? table_->allocate() : std::nullopt;
    if (!cluster || !table_->zeroCluster(*cluster))
        return false;
    // "." and ".." first, then the entry in the parent; ".." of a child of the root says 0.
    const std::uint32_t parentCluster = parent->entryOffset == 0 ? 0 : parent->firstCluster;
    if (Fat::writeDotEntries(*table_, *cluster, parentCluster) && createEntry(path, A::kDirectory, *cluster))
        return true;
    const std::uint32_t code = Error::get();
    const std::string text = Error::text();
    table_->release({*cluster});
    if (!table_->write())
        return false; // the write's own error says more than the first one now
    Error::set(code, text);
    return false;
}

bool FatFilesys::removeExisting(const std::string& path)
{
    const auto node = lookup(path);
    if (!node)
        return false;
    if (node->isDirectory()) {
        Error::set(Error::IsDirectory);
        return false;
    }
    const auto clusters = table_->chain(node->firstCluster);
    if (!clusters || !Fat::markDeleted(*table_, *node))
        return false;
    table_->release(*clusters);
    return table_->write();
}

bool FatFilesys::writeOut()
{
    return table_->write() && table_->storage().flush();
}

} // namespace Platform
