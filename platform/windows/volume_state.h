#pragma once
// How Windows left a volume, as far as it can be told without Windows: encrypted, hibernated
// (or shut down fast, which is hibernation too), or with an NTFS log it has not closed. Windows
// resumes or replays such a session over whatever was changed offline.

#include "platform/fs/filesys.h"

#include <optional>
#include <string>

namespace Platform::Windows {

struct VolumeState {
    bool encrypted = false;       // BitLocker: nothing inside can be read
    std::string hibernation;      // the hibernation file's signature; empty when it holds no session
    std::optional<bool> logClean; // NTFS: whether its log says it was shut down cleanly

    bool sessionOpen() const { return !hibernation.empty() || logClean == false; }
    // Why the session is open, in words ("it is hibernated (hiberfil.sys starts with "hibr")").
    std::string sessionReason() const;
};

// "-FVE-FS-" at offset 3 of the volume's first sector.
bool isBitLocker(Interfaces::Storage& storage);
// "hibr", "HIBR", "wake" or "RSTR" when /hiberfil.sys starts with one; empty otherwise.
std::string hibernationSignature(Filesys& fs);
// storage: the volume, when there is one (not for a folder the host mounted); fs: its files,
// read-only is enough, when they could be opened.
VolumeState inspectVolume(const Ref<Interfaces::Storage>& storage, Filesys* fs);

} // namespace Platform::Windows
