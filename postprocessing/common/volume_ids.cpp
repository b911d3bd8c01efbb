#include "postprocessing/common/volume_ids.h"

#include "platform/core/error.h"
#include "platform/core/random.h"
#include "platform/core/string_util.h"
#include "platform/fs/family.h"
#include "postprocessing/keeper_entries.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/format_fs_id.h"
#include "postprocessing/tools/storage_resolution.h"
#include "postprocessing/tools/target_filesystem.h"
#include "postprocessing/tools/uuid_helper.h"

namespace Libraries::KRO::PostProcessing::Common {

namespace {

using Platform::MountHelper;

// The message for a new id of the wrong size, by the length the family's ids have.
const char* sizeMessage(std::size_t idLength)
{
    switch (idLength) {
    case 4:
        return "Size of new FAT id incorrect";
    case 8:
        return "Size of new NTFS id incorrect";
    default:
        return "Size of new ext ID incorrect";
    }
}

Ref<ByteArray> randomId(std::size_t length)
{
    if (length == 16) {
        // These families store a UUID as a byte string and their tools print it in that order:
        // so stored, a version-4 UUID reads as one (4... in the third group, 8-b in the fourth).
        const auto uuid = UUIDHelper::createRandom().toTextOrderBytes();
        return ByteArray::create(uuid);
    }
    const auto generator = Platform::Random::create();
    std::vector<u8> bytes(length);
    for (auto& byte : bytes)
        byte = u8(generator->upTo(0xFF));
    return ByteArray::create(bytes);
}

// The from-object of the id entry must be the id the file system has now.
bool expectedIdMatches(const ByteArray* expected, const ByteArray* current)
{
    if (!expected)
        return true;
    const char* problem = nullptr;
    if (!current || expected->size() != current->size())
        problem = "From id value provided, but length does not match with id of file system";
    else if (!(*expected == *current))
        problem = "From id value provided, but value does not match with id of file system";
    if (!problem)
        return true;
    LogMessage(Channels::common(), LogError) << problem;
    LogMessage(Channels::common(), LogError) << "From id value provided, but does not match id of file system";
    LogMessage(Channels::common(), LogError) << "from id:" << Tools::hexBytes(expected);
    LogMessage(Channels::common(), LogError) << "FS id:" << Tools::hexBytes(current);
    return false;
}

} // namespace

StepResult changeVolumeId(Ref<Keeper> keeper, Ref<Platform::FileSysBase> fs, u64 partition, u64 idEntry)
{
    if (!fs)
        return StepResult::NothingFound;
    const Ref<ByteArray> current = fs->volumeId();
    const auto expected = idEntry ? Platform::refCast<ByteArray>(keeper->getFromObject(idEntry)) : Ref<ByteArray>();
    if (!expectedIdMatches(expected.get(), current.get()))
        return StepResult::Failed;

    Ref<ByteArray> newId = idEntry ? Platform::refCast<ByteArray>(keeper->getToObject(idEntry)) : Ref<ByteArray>();
    const char* typeName = MountHelper::typeName(fs->type());
    const std::size_t idLength = Platform::fsFamily(fs->type()).idLength;
    if (idLength == 0) {
        LogMessage(Channels::common(), LogDetail) << "Changing volume id not supported for " << typeName;
        return StepResult::NothingFound;
    }
    if (!newId)
        newId = randomId(idLength);
    else if (newId->size() != idLength)
        LogMessage(Channels::common(), LogError) << sizeMessage(idLength); // the file system decides
    LogMessage(Channels::common(), LogDetail) << "Changing volume ID for " << typeName;
    LogMessage(Channels::common(), LogDetail) << "Old ID:" << Tools::hexBytes(current.get());
    LogMessage(Channels::common(), LogDetail) << "New ID:" << Tools::hexBytes(newId.get());
    if (!fs->setVolumeId(newId->bytes())) {
        LogMessage(Channels::common(), LogError)
            << "Could not change volume id for " << typeName << ": " << Platform::Error::text();
        return StepResult::Failed;
    }
    if (current)
        keeper->addObjectEntry(KindVolumeIdChange, current, newId, partition, idEntry);
    return StepResult::Ok;
}

StepResult changeVolumeIds(Ref<Keeper> keeper)
{
    if (keeperMissing(keeper, Channels::common()))
        return StepResult::Failed;
    const bool allPartitions = keeper->isEnabled(StepFsIds);
    StepResult result = StepResult::NothingFound;
    for (const u64 partition : entriesOf(*keeper, KindPartition)) {
        const u64 idEntry = keeper->findNext(KindVolumeIdChange, 0, partition);
        if (idEntry == 0 && !allPartitions)
            continue;
        if (idEntry != 0 && allPartitions)
            LogMessage(Channels::common(), LogWarning) << "fs id entry already set for id " << partition;
        const auto fs = Tools::openToFileSystem(keeper, partition);
        if (!fs) {
            LogMessage(Channels::common(), LogWarning)
                << "Could not get file system for " << Tools::entryLogName(*keeper, partition) << " ("
                << Platform::Error::get() << ")";
            continue;
        }
        result = foldResult(result, changeVolumeId(keeper, fs, partition, idEntry));
    }
    return result;
}

} // namespace Libraries::KRO::PostProcessing::Common
