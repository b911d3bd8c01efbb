#pragma once
// A target partition as the Windows steps open it. Windows resumes a hibernated session (fast
// startup included) or replays an open NTFS log over whatever was changed offline, so such a
// volume is changed only when the run also purges the hibernation file: its signature is then
// cleared before anything else is written and Windows boots afresh. An encrypted (BitLocker)
// volume is never opened.

#include "postprocessing/keeper.h"
#include "postprocessing/tools/file_tools.h"

#include <string>

namespace Libraries::KRO::PostProcessing::Windows {

class WindowsVolume {
public:
    // files() is null when the partition has no file system, or is encrypted (logged).
    // discardSession: this run purges the hibernation file, so an open session may be discarded;
    // without it such a volume opens read-only and refused() is true.
    static WindowsVolume open(const Ref<Keeper>& keeper, u64 partition, bool discardSession);

    const Ref<Platform::Filesys>& files() const { return fs_; }
    bool refused() const { return !refusal_.empty(); }
    // Whether a step may write what it found (e.g. "the system hive"); when not, logs why and
    // what to do.
    bool mayChange(const std::string& what) const;

private:
    Ref<Platform::Filesys> fs_;
    std::string name_;
    std::string refusal_; // why the volume stays as it is; empty when it may be changed
};

} // namespace Libraries::KRO::PostProcessing::Windows
