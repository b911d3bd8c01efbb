#include "postprocessing/windows/windows_volume.h"

#include "platform/windows/volume_state.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/storage_resolution.h"

namespace Libraries::KRO::PostProcessing::Windows {

namespace {

using Platform::Access;
using Platform::OpenFlags::DiscardWindowsSession;
using Platform::OpenFlags::FileSystemByPath;

// Windows checks the first four bytes; zero means there is nothing to resume.
bool clearHibernationSignature(Platform::Filesys& fs)
{
    const auto file = fs.openFile("/hiberfil.sys", Platform::OpenFlags::ReadWriteExisting);
    const std::uint8_t zeros[4] = {};
    return file && file->write(zeros, sizeof zeros) == sizeof zeros && fs.flush();
}

} // namespace

WindowsVolume WindowsVolume::open(const Ref<Keeper>& keeper, u64 partition, bool discardSession)
{
    WindowsVolume volume;
    volume.name_ = Tools::entryLogName(*keeper, partition);
    auto target = Tools::openTargetFileSystem(keeper, partition, FileSystemByPath, Access::ReadOnly);
    const auto state = Platform::Windows::inspectVolume(target.storage, target.fs.get());
    if (state.encrypted) {
        LogMessage(Channels::windows(), LogWarning)
            << volume.name_ << " is encrypted with BitLocker; the Windows steps cannot look inside and leave it alone";
        return volume;
    }
    if (!target.fs)
        return volume;
    if (!state.sessionOpen()) {
        volume.fs_ = Tools::getToFSItemFactory(keeper, partition, 1);
        return volume;
    }
    if (!discardSession) {
        volume.fs_ = target.fs; // read-only: the steps may still look
        volume.refusal_ = state.sessionReason();
        return volume;
    }
    target.fs = {};
    volume.fs_ =
        Tools::openTargetFileSystem(keeper, partition, FileSystemByPath | DiscardWindowsSession, Access::ReadWrite).fs;
    if (volume.fs_ && !state.hibernation.empty() && !clearHibernationSignature(*volume.fs_)) {
        LogMessage(Channels::windows(), LogError) << volume.name_ << ": " << state.sessionReason()
                                                  << ", and its hibernation file could not be purged; it is left alone";
        volume.refusal_ = state.sessionReason();
        volume.fs_ = {};
        return volume;
    }
    if (volume.fs_)
        LogMessage(Channels::windows(), LogNotice)
            << volume.name_ << ": " << state.sessionReason()
            << "; that session is discarded, since this run purges the hibernation file";
    return volume;
}

bool WindowsVolume::mayChange(const std::string& what) const
{
    if (refusal_.empty()) {
        if (fs_ && !fs_->readOnly())
            return true;
        LogMessage(Channels::windows(), LogError) << name_ << " can only be read; " << what << " is left as it is";
        return false;
    }
    LogMessage(Channels::windows(), LogError)
        << name_ << ": " << refusal_ << ". Windows would resume that session over any change, so " << what
        << " is left as it is. Shut Windows down fully (no hibernation, no fast startup) before copying, or "
           "switch on \"Purge win hiberfile\" to discard the session";
    return false;
}

} // namespace Libraries::KRO::PostProcessing::Windows
