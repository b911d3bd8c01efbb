#include "platform/fs/staged_filesys.h"

#include "platform/core/error.h"

namespace Platform {

namespace {

class StagedFile : public File {
public:
    StagedFile(Ref<StagedFilesys> fs, Ref<File> file) : fs_(std::move(fs)), file_(std::move(file)) {}

    std::uint64_t size() override { return file_->size(); }
    bool seek(std::uint64_t position) override { return file_->seek(position); }
    std::uint64_t read(void* buffer, std::uint64_t length) override { return file_->read(buffer, length); }
    std::uint64_t write(const void* buffer, std::uint64_t length) override
    {
        if (!fs_->usable())
            return 0;
        const std::uint64_t before = fs_->stagedWrites();
        const std::uint64_t done = file_->write(buffer, length);
        fs_->settle(done == length, before);
        return done;
    }
    std::uint64_t resize(std::uint64_t size) override
    {
        if (!fs_->usable())
            return file_->size();
        const std::uint64_t before = fs_->stagedWrites();
        const std::uint64_t done = file_->resize(size);
        fs_->settle(done == size, before);
        return done;
    }
    // The file's data and the file system's metadata, written together.
    bool flush() override
    {
        if (!fs_->usable())
            return false;
        const std::uint64_t before = fs_->stagedWrites();
        return fs_->settle(file_->flush(), before) && fs_->flush();
    }

    std::optional<std::vector<Area>> allocation() override { return file_->allocation(); }

private:
    Ref<StagedFilesys> fs_;
    Ref<File> file_;
};

} // namespace

Ref<Filesys> StagedFilesys::open(Ref<Interfaces::Storage> storage, const FamilyOpener& openFamily)
{
    auto undo = makeRef<UndoStorage>(std::move(storage));
    auto staging = makeRef<StagingStorage>(undo);
    auto staged = makeRef<StagedFilesys>(undo, staging);
    staged->family_ = openFamily(staging);
    if (!staged->family_)
        return {};
    return staged;
}

StagedFilesys::StagedFilesys(Ref<UndoStorage> undo, Ref<StagingStorage> staging)
    : undo_(std::move(undo)), staging_(std::move(staging))
{
}

StagedFilesys::~StagedFilesys()
{
    // The family's last metadata (written as it closes) goes with the rest.
    family_ = {};
    if (!broken_ && staging_->stagedSectors() != 0)
        commit();
}

bool StagedFilesys::usable() const
{
    if (broken_)
        Error::set(Error::Io);
    return !broken_;
}

void StagedFilesys::breakOff(const char* why)
{
    broken_ = true;
    staging_->discard();
    LogMessage(channel(), LogError) << why;
}

bool StagedFilesys::settle(bool ok, std::uint64_t writesBefore)
{
    if (!ok && stagedWrites() != writesBefore)
        breakOff("An operation failed part-way: none of the changes since the last flush are written");
    return ok;
}

bool StagedFilesys::commit()
{
    const auto outcome = undo_->run([this] { return staging_->commit(); });
    if (outcome == UndoStorage::Outcome::Done)
        return true;
    breakOff(outcome == UndoStorage::Outcome::NotAllPutBack
                 ? "A write failed and the sectors already written could not all be put back: run the file "
                   "system's checker"
                 : "A write failed: the file system was put back as it was before the change");
    Error::set(Error::Io);
    return false;
}

Ref<File> StagedFilesys::openFile(const std::string& path, std::uint32_t flags)
{
    if (!usable())
        return {};
    const std::uint64_t before = stagedWrites();
    auto file = family_->openFile(path, flags);
    if (!settle(bool(file), before))
        return {};
    return makeRef<StagedFile>(Ref<StagedFilesys>(this), std::move(file));
}

Ref<Directory> StagedFilesys::openDirectory(const std::string& path)
{
    return usable() ? family_->openDirectory(path) : Ref<Directory>();
}

bool StagedFilesys::createDirectory(const std::string& path)
{
    if (!usable())
        return false;
    const std::uint64_t before = stagedWrites();
    return settle(family_->createDirectory(path), before);
}

bool StagedFilesys::removeFile(const std::string& path)
{
    if (!usable())
        return false;
    const std::uint64_t before = stagedWrites();
    return settle(family_->removeFile(path), before);
}

bool StagedFilesys::flush()
{
    if (!usable())
        return false;
    const std::uint64_t before = stagedWrites();
    if (!settle(family_->flush(), before))
        return false;
    return commit();
}

} // namespace Platform
