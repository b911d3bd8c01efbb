#include "postprocessing/windows/bcd_creation.h"

#include "platform/core/error.h"
#include "platform/core/string_util.h"
#include "platform/partman/partition_manager.h"
#include "platform/windows/boot_store_builder.h"
#include "platform/windows/system_hives.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/file_tools.h"
#include "postprocessing/tools/format_fs_id.h"
#include "postprocessing/tools/storage_resolution.h"
#include "postprocessing/tools/uuid_helper.h"

#include <algorithm>

namespace Libraries::KRO::PostProcessing::Windows {

namespace {

using Platform::Filesys;
using Platform::OpenFlags::CreateOrTruncate;
using Platform::Windows::BootStoreLayout;

constexpr u32 kTemplateOpenFlags = 0x4003;

LogMessage error()
{
    return LogMessage(Channels::windows(), LogError);
}

LogMessage detail()
{
    return LogMessage(Channels::windows(), LogDetail);
}

Ref<ByteArray> bytesOf(const ObjectRef& object)
{
    return Platform::refCast<ByteArray>(object);
}

std::optional<std::string> firstText(const VariantList& values)
{
    const std::string* text = values.empty() ? nullptr : values.front().asString();
    return text && !text->empty() ? std::optional(*text) : std::nullopt;
}

struct TemplateStore {
    std::string source, destination;
    Ref<Platform::File> file;
};

// The template named by the BCD path mapping; nothing (logged) when it is missing or unusable.
std::optional<TemplateStore> openTemplate(const Keeper& keeper, StepResult& outcome)
{
    const u64 mapping = keeper.findNext(KindBcdPath, 0, 0);
    outcome = StepResult::Failed;
    if (mapping == 0) {
        error() << "No BCD path mapping ID";
        outcome = StepResult::NothingFound;
        return std::nullopt;
    }
    const auto source = firstText(keeper.getFrom(mapping));
    const auto destination = firstText(keeper.getTo(mapping));
    if (!source || !destination) {
        error() << (source ? "BCD destination path is invalid" : "BCD source path is invalid");
        return std::nullopt;
    }
    const u64 fsMapping = keeper.findNext(KindBcdTemplateFs, 0, mapping);
    if (fsMapping == 0) {
        error() << "No BCD FS mapping ID";
        return std::nullopt;
    }
    auto fs = Platform::refCast<Filesys>(keeper.getToObject(fsMapping));
    if (!fs)
        fs = Platform::refCast<Filesys>(keeper.getFromObject(fsMapping));
    if (!fs) {
        error() << "BCD FS mapping is invalid";
        return std::nullopt;
    }
    auto file = fs->openFile(*source, kTemplateOpenFlags);
    if (!file) {
        error() << "Failed to open BCD on source: " << *source;
        return std::nullopt;
    }
    detail() << "Got BCD source path " << *source;
    detail() << "Got BCD destination path " << *destination;
    return TemplateStore{*source, *destination, std::move(file)};
}

// The disk's GPT id after the id steps; the table's own when no step recorded one.
Ref<ByteArray> newDiskId(const Ref<Keeper>& keeper, u64 disk)
{
    if (const u64 change = keeper->findNext(KindDiskIdChange, 0, disk))
        if (auto id = bytesOf(keeper->getToObject(change)))
            return id;
    const auto table = Platform::PartitionManager::create(Tools::getToStorage(keeper, disk), 512);
    return table ? table->diskId() : nullptr;
}

// The partition's UUID after the id steps: the change's new value, else its old one, else the id
// the caller gave the partition.
Ref<ByteArray> partitionId(const Keeper& keeper, u64 partition)
{
    if (const u64 change = keeper.findNext(KindPartitionUuidChange, 0, partition)) {
        if (auto id = bytesOf(keeper.getToObject(change)))
            return id;
        if (auto id = bytesOf(keeper.getFromObject(change)))
            return id;
    }
    const VariantList given = keeper.getTo(partition);
    const auto* bytes = given.empty() ? nullptr : given.front().asBytes();
    return bytes ? ByteArray::create(*bytes) : nullptr;
}

// The disk's partition entries by their start on the target (kind 2), so that boot entries come
// in the order of the partitions; entries without a start keep the keeper's order, after them.
std::vector<u64> inDiskOrder(const Keeper& keeper, u64 disk)
{
    std::vector<std::pair<u64, u64>> starts;
    for (const u64 partition : entriesOf(keeper, KindPartition, disk)) {
        const u64 offset = keeper.findNext(KindPartitionOffset, 0, partition);
        const VariantList to = offset ? keeper.getTo(offset) : VariantList{};
        const auto start = to.empty() ? std::nullopt : to.front().asInteger();
        starts.emplace_back(start.value_or(~u64(0)), partition);
    }
    std::stable_sort(starts.begin(), starts.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<u64> ordered;
    for (const auto& [start, partition] : starts)
        ordered.push_back(partition);
    return ordered;
}

std::string newEntryName()
{
    const auto text = UUIDHelper::formatUUID(UUIDHelper::createRandom(), 'B', UUIDHelper::MixedEndian);
    return text ? Platform::StringUtil::lower(text->str()) : Platform::Windows::randomObjectName();
}

class BcdCreation {
public:
    BcdCreation(Ref<Keeper> keeper, TemplateStore store) : keeper_(std::move(keeper)), template_(std::move(store)) {}

    StepResult run()
    {
        for (const u64 disk : entriesOf(*keeper_, KindDisk)) {
            if (createOnDisk(disk))
                ++succeeded_;
            else
                ++failed_;
        }
        return failed_ ? StepResult::Failed : succeeded_ ? StepResult::Ok : StepResult::NothingFound;
    }

private:
    bool createOnDisk(u64 disk)
    {
        BootStoreLayout layout;
        layout.diskId = newDiskId(keeper_, disk);
        detail() << "Got disk ID:" << Tools::hexBytes(layout.diskId.get());
        Ref<Filesys> efiFs;
        for (const u64 partition : inDiskOrder(*keeper_, disk))
            visitPartition(partition, layout, efiFs);
        if (!efiFs)
            return false;
        const auto store = copyTemplate(efiFs);
        if (!store)
            return false;
        const bool filled = Platform::Windows::fillBootStore(*store, layout, newEntryName);
        const bool written = store->flush() && efiFs->flush();
        if (filled && !written)
            error() << "Failed to write BCD " << template_.destination;
        return filled && written;
    }

    void visitPartition(u64 partition, BootStoreLayout& layout, Ref<Filesys>& efiFs)
    {
        const bool efi = marksEfiPartition(*keeper_, partition);
        // Only the EFI partition is written; a Windows is only read.
        const auto fs = efi ? Tools::getToFSItemFactory(keeper_, partition, 1)
                            : Tools::openTargetFileSystem(keeper_, partition, Platform::OpenFlags::FileSystemByPath,
                                                          Platform::Access::ReadOnly)
                                  .fs;
        if (!fs) {
            LogMessage(Channels::windows(), LogWarning)
                << "Libraries::KRO::PostProcessing::Windows::createBCD: Could not mount fs for id " << partition
                << ", error: " << Platform::Error::get();
            return;
        }
        const auto system = Platform::Windows::Utils::getInstalledSystem(fs);
        if (!efi && !system)
            return;
        const auto id = partitionId(*keeper_, partition);
        detail() << "Got partition ID:" << Tools::hexBytes(id.get());
        if (efi && !efiFs) {
            efiFs = fs;
            layout.efiPartition = id;
        }
        if (system)
            layout.systems.push_back({*system, id});
    }

    Ref<Platform::Hive::HiveFile> copyTemplate(const Ref<Filesys>& efiFs)
    {
        auto destination = efiFs->openFile(template_.destination, CreateOrTruncate);
        if (!destination) {
            error() << "Failed to create destination BCD: " << template_.destination;
            return nullptr;
        }
        detail() << "Copying BCD template to destination";
        if (!template_.file->seek(0) || !Tools::copyFile(template_.file, destination) || !destination->flush()) {
            error() << "Failed to copy BCD from " << template_.source << " to " << template_.destination;
            return nullptr;
        }
        destination = nullptr; // closed, so that the store opens on what was written
        const auto store = Platform::Windows::Utils::openMachineHive(efiFs, template_.destination, true);
        if (!store || !store->writable()) {
            error() << "Failed to open BCD hive " << template_.destination << "; error: " << Platform::Error::get();
            return nullptr;
        }
        return store;
    }

    Ref<Keeper> keeper_;
    TemplateStore template_;
    u32 succeeded_ = 0;
    u32 failed_ = 0;
};

} // namespace

StepResult createBCD(Ref<Keeper> keeper)
{
    if (keeperMissing(keeper, Channels::windows()))
        return StepResult::Failed;
    StepResult outcome = StepResult::Failed;
    auto store = openTemplate(*keeper, outcome);
    if (!store)
        return outcome;
    return BcdCreation(std::move(keeper), std::move(*store)).run();
}

} // namespace Libraries::KRO::PostProcessing::Windows
