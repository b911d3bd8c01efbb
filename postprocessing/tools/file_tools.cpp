#include "postprocessing/tools/file_tools.h"

#include "platform/core/error.h"
#include "platform/core/random.h"
#include "platform/core/string_util.h"
#include "platform/fs/allocation_iterator.h"
#include "platform/fs/memory_file.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/storage_resolution.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <unistd.h>
#include <vector>

namespace Libraries::KRO::PostProcessing {

namespace {

// The temporary file is removed with its last reference: a rewrite never leaves one behind.
class TemporaryFile : public Platform::File {
public:
    TemporaryFile(Ref<Platform::File> inner, std::string path) : inner_(std::move(inner)), path_(std::move(path)) {}
    ~TemporaryFile() override
    {
        inner_.reset();
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    std::uint64_t size() override { return inner_->size(); }
    bool seek(std::uint64_t position) override { return inner_->seek(position); }
    std::uint64_t read(void* buffer, std::uint64_t length) override { return inner_->read(buffer, length); }
    std::uint64_t write(const void* buffer, std::uint64_t length) override { return inner_->write(buffer, length); }
    std::uint64_t resize(std::uint64_t size) override { return inner_->resize(size); }
    bool flush() override { return inner_->flush(); }

private:
    Ref<Platform::File> inner_;
    std::string path_;
};

} // namespace

// A host file in the temporary folder, removed with its last reference.
Ref<Platform::File> createHostTempFile()
{
    const u32 number = Platform::Random::create()->upTo(0xFFFFFFFF);
    const std::string name = "ppfstab_" + Platform::StrConv::str(number, 16, 8);
    std::error_code ignored;
    const std::string folder = std::filesystem::temp_directory_path(ignored).string();
    const auto host =
        Platform::Filesys::create(folder, Platform::OpenFlags::FileSystemByPath | Platform::OpenFlags::Unwatched,
                                  Platform::Access::ReadWrite);
    auto file = host ? host->openFile("/" + name, Platform::OpenFlags::CreateOrOpen) : Ref<Platform::File>();
    if (!file) {
        LogMessage(Channels::tools(), LogError) << "Could not create tempfile " << folder << "/" << name;
        LogMessage(Channels::tools(), LogError) << " : " << Platform::Error::get();
        return {};
    }
    return makeRef<TemporaryFile>(file, folder + "/" + name);
}

namespace {

// A rewritten file in memory while it is small (fstab, grub.cfg: a few KiB), in a host temporary
// file once it outgrows kInMemoryBytes.
class GrowingTempFile : public Platform::File {
public:
    static constexpr u64 kInMemoryBytes = u64(1) << 20;

    std::uint64_t size() override { return current().size(); }
    bool seek(std::uint64_t position) override
    {
        position_ = position;
        return current().seek(position);
    }
    std::uint64_t read(void* buffer, std::uint64_t length) override
    {
        const u64 done = current().read(buffer, length);
        position_ += done;
        return done;
    }
    std::uint64_t write(const void* buffer, std::uint64_t length) override
    {
        if (!host_ && position_ + length > kInMemoryBytes && !moveToHost())
            return 0;
        const u64 done = current().write(buffer, length);
        position_ += done;
        return done;
    }
    std::uint64_t resize(std::uint64_t size) override
    {
        if (!host_ && size > kInMemoryBytes && !moveToHost())
            return current().size();
        return current().resize(size);
    }
    bool flush() override { return current().flush(); }

private:
    Platform::File& current() { return host_ ? *host_ : memory_; }
    bool moveToHost()
    {
        host_ = createHostTempFile();
        const auto& bytes = memory_.bytes();
        if (!host_ || host_->write(bytes.data(), bytes.size()) != bytes.size() || !host_->seek(position_)) {
            host_.reset();
            return false;
        }
        memory_.resize(0);
        return true;
    }

    Platform::MemoryFile memory_;
    Ref<Platform::File> host_;
    u64 position_ = 0;
};

} // namespace

Ref<Platform::File> createTempFile()
{
    return makeRef<GrowingTempFile>();
}

namespace Tools {

bool temporaryFolderUsable(std::string& problem)
{
    std::error_code error;
    const auto folder = std::filesystem::temp_directory_path(error);
    if (error) {
        const char* tmpdir = std::getenv("TMPDIR");
        problem = "The temporary folder " + std::string(tmpdir ? tmpdir : "/tmp") +
                  " (TMPDIR) is not usable: " + error.message();
        return false;
    }
    const std::filesystem::path probe = folder / ("ppfstab_probe_" + std::to_string(::getpid()));
    std::FILE* file = std::fopen(probe.c_str(), "wb");
    if (!file) {
        problem = "The temporary folder " + folder.string() + " (TMPDIR) does not take files: " + std::strerror(errno);
        return false;
    }
    std::fclose(file);
    std::filesystem::remove(probe, error);
    return true;
}

TargetFileSystem openTargetFileSystem(const Ref<Keeper>& keeper, u64 index, u32 flags, Platform::Access access)
{
    if (!keeper)
        return {};
    u64 partition = index;
    if (keeper->getKind(index) == KindPartitionStorage)
        partition = keeper->getId(index);
    else if (keeper->getKind(index) != KindPartition) {
        LogMessage(Channels::tools(), LogError) << "Id is no partition: " << entryLogName(*keeper, index);
        return {};
    }
    const VariantList to = keeper->getTo(partition);
    if (!to.empty() && (to.front().isString() || to.front().isInteger())) {
        const std::string path =
            to.front().isString() ? *to.front().asString() : Platform::StrConv::str(*to.front().asInteger());
        if (auto fs = Platform::Filesys::create(path, flags, access))
            return {fs, {}};
    }
    TargetFileSystem target;
    target.storage = getToStorage(keeper, partition);
    if (!target.storage) {
        LogMessage(Channels::tools(), LogDetail) << "Partition has no storage: " << entryLogName(*keeper, partition);
        return {};
    }
    target.fs = Platform::Filesys::create(target.storage, flags, access);
    if (!target.fs)
        LogMessage(Channels::tools(), LogDetail)
            << "Could not create filesys for " << entryLogName(*keeper, partition) << " " << Platform::Error::get();
    return target;
}

Ref<Platform::Filesys> getToFSItemFactory(Ref<Keeper> keeper, u64 index, u32)
{
    return openTargetFileSystem(keeper, index, Platform::OpenFlags::FileSystemByPath, Platform::Access::ReadWrite).fs;
}

StepResult foldTargetFileSystems(const Ref<Keeper>& keeper, const std::function<StepResult(Platform::Filesys&)>& fn)
{
    StepResult result = StepResult::NothingFound;
    for (const u64 partition : entriesOf(*keeper, KindPartition))
        if (const auto fs = getToFSItemFactory(keeper, partition, 1))
            result = foldResult(result, fn(*fs));
    return result;
}

std::optional<std::vector<Platform::Area>> collectAllocation(Platform::File& file)
{
    const auto iterator = Platform::AllocationIterator::create(file);
    if (!iterator)
        return std::nullopt;
    std::vector<Platform::Area> areas;
    for (;;) {
        Platform::Area slots[Platform::AllocationIterator::kAreasPerCall];
        std::fill(std::begin(slots), std::end(slots), Platform::Area{~u64(0), 0});
        const std::size_t delivered = iterator->next(slots, std::size(slots));
        if (delivered == 0)
            return areas;
        areas.insert(areas.end(), slots, slots + delivered);
    }
}

bool copyFile(Ref<Platform::File> source, Ref<Platform::File> target)
{
    constexpr std::size_t kBlock = std::size_t(1) << 20; // few calls, whatever the file systems
    if (!source || !target)
        return false;
    source->seek(0);
    target->seek(0);
    const u64 size = source->size();
    if (target->resize(size) != size) {
        LogMessage(Channels::tools(), LogError) << "Libraries::KRO::PostProcessing::Tools::copyFile: Could not resize";
        return false;
    }
    std::vector<u8> buffer(kBlock);
    for (u64 done; (done = source->read(buffer.data(), kBlock)) > 0;) {
        if (target->write(buffer.data(), done) < done) {
            LogMessage(Channels::tools(), LogError)
                << "Libraries::KRO::PostProcessing::Tools::copyFile: Could not write all data";
            return false;
        }
    }
    return true;
}

} // namespace Tools
} // namespace Libraries::KRO::PostProcessing
