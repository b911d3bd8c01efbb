#pragma once
// A writable facade over a storage, all or nothing: the family's facade writes into a staging
// storage, and a flush (of the file system or of any of its files) writes what was staged,
// putting back what it had written when a write fails. The file system on disk is thus the one
// before or the one after each flush, never a mix. An operation that fails after it staged
// something drops what was staged since the last flush, and the facade refuses any further
// change: the family's view of the file system no longer matches the disk. What is staged when
// the facade goes away is written then. Memory grows with the sectors changed between flushes.

#include "platform/fs/filesys.h"
#include "platform/storage/staging_storage.h"
#include "platform/storage/undo_storage.h"

#include <functional>

namespace Platform {

class StagedFilesys : public Filesys {
public:
    using FamilyOpener = std::function<Ref<Filesys>(Ref<Interfaces::Storage>)>;
    // Null when openFamily finds no file system on the staged storage.
    static Ref<Filesys> open(Ref<Interfaces::Storage> storage, const FamilyOpener& openFamily);

    StagedFilesys(Ref<UndoStorage> undo, Ref<StagingStorage> staging);
    ~StagedFilesys() override;

    Ref<File> openFile(const std::string& path, std::uint32_t flags) override;
    Ref<Directory> openDirectory(const std::string& path) override;
    bool createDirectory(const std::string& path) override;
    bool removeFile(const std::string& path) override;
    bool flush() override;
    bool readOnly() const override { return family_->readOnly(); }
    std::optional<bool> windowsLogClean() override { return family_->windowsLogClean(); }

    // For its files: the result of an operation that may have staged writes; a failure that
    // did stage some breaks the facade.
    bool settle(bool ok, std::uint64_t writesBefore);
    std::uint64_t stagedWrites() const { return staging_->writeCalls(); }
    // false (Error::Io set) once an operation failed part-way.
    bool usable() const;

private:
    bool commit();
    void breakOff(const char* why);

    Ref<UndoStorage> undo_;
    Ref<StagingStorage> staging_;
    Ref<Filesys> family_;
    bool broken_ = false;
};

} // namespace Platform
