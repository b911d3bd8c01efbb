#include "platform/windows/volume_state.h"

#include <array>
#include <cstring>
#include <vector>

namespace Platform::Windows {

namespace {

constexpr std::size_t kOemIdOffset = 3;
constexpr std::string_view kBitLockerOemId = "-FVE-FS-";
constexpr std::array<std::string_view, 4> kSessionSignatures = {"hibr", "HIBR", "wake", "RSTR"};

std::string oemId(Interfaces::Storage& storage)
{
    if (storage.elementSize() < kOemIdOffset + 8 || storage.elementCount() == 0)
        return {};
    std::vector<std::uint8_t> sector(storage.elementSize());
    if (storage.read(0, 1, sector.data()) != 1)
        return {};
    return std::string(reinterpret_cast<const char*>(sector.data()) + kOemIdOffset, 8);
}

} // namespace

std::string VolumeState::sessionReason() const
{
    std::string reason;
    if (!hibernation.empty())
        reason = "it is hibernated (hiberfil.sys starts with \"" + hibernation + "\")";
    if (logClean == false)
        reason +=
            std::string(reason.empty() ? "its" : " and its") + " NTFS log says Windows did not shut it down cleanly";
    return reason;
}

bool isBitLocker(Interfaces::Storage& storage)
{
    return oemId(storage) == kBitLockerOemId;
}

std::string hibernationSignature(Filesys& fs)
{
    const auto file = fs.openFile("/hiberfil.sys", OpenFlags::Read);
    char signature[4] = {};
    if (!file || file->read(signature, sizeof signature) != sizeof signature)
        return {};
    for (const std::string_view known : kSessionSignatures)
        if (std::memcmp(signature, known.data(), sizeof signature) == 0)
            return std::string(known);
    return {};
}

VolumeState inspectVolume(const Ref<Interfaces::Storage>& storage, Filesys* fs)
{
    VolumeState state;
    if (storage && isBitLocker(*storage)) {
        state.encrypted = true;
        return state;
    }
    if (fs) {
        state.hibernation = hibernationSignature(*fs);
        state.logClean = fs->windowsLogClean();
    }
    return state;
}

} // namespace Platform::Windows
