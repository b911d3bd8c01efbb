#pragma once
// What a dry run learns of the files inside file systems. While a FileChangeLog is installed, the
// facade factory watches every file system it opens: each file written, made or removed, and
// each directory made, is recorded with its sizes and, for files up to kContentLimit, its whole
// contents before and after (from which a text file's diff is made). Host folders keep their
// changes in the log's overlay instead of writing them, and a file-system image named by path is
// changed in memory only, so that a dry run leaves everything as it found it.

#include "platform/fs/filesys.h"
#include "platform/fs/host_overlay.h"

#include <optional>
#include <string>
#include <vector>

namespace Platform {

struct FileChange {
    enum class Kind { Changed, Created, Removed, DirectoryCreated };
    Kind kind = Kind::Changed;
    // Where the file system is: a host folder or image file by path, else the storage it lies on.
    std::string volumePath;
    Ref<Interfaces::Storage> storage;
    std::string path;
    std::uint64_t sizeBefore = 0;
    std::uint64_t sizeAfter = 0;
    // Whole contents, when the file was that small (nothing for a file that was not there).
    std::optional<std::string> before;
    std::optional<std::string> after;

    // Both contents known and free of NUL bytes.
    bool isText() const;
};

class FileChangeLog {
public:
    static constexpr std::uint64_t kContentLimit = std::uint64_t(1) << 20;

    // The process's log while installed (one at a time); null uninstalls it.
    static void install(FileChangeLog* log);
    static FileChangeLog* active();

    // A later change of a file already recorded since the last take() joins its record; a file
    // that ends as it began is no change.
    void record(FileChange change);
    // The changes since the last call, in the order the files were first changed.
    std::vector<FileChange> take();

    HostOverlay& hostOverlay() { return hostOverlay_; }

private:
    std::vector<FileChange> pending_;
    HostOverlay hostOverlay_;
};

} // namespace Platform
