#pragma once
// Linux swap areas (version 1 headers, "SWAPSPACE2"): the UUID in the header page, which fstab,
// the resume configuration and GRUB's resume= name. The header page is as large as the page
// size of the machine that made it; its signature sits in that page's last ten bytes.

#include "platform/fs/filesys_base.h"

#include <optional>

namespace Platform {

class SwapVolume : public FileSysBase {
public:
    enum class State { Swap, Hibernated };
    struct Layout {
        std::uint32_t pageSize;
        State state;
    };

    // The header's page size when the storage holds a version-1 swap header, or a swap area
    // that keeps a hibernation image.
    static std::optional<Layout> detect(Interfaces::Storage& storage);

    SwapVolume(Ref<Interfaces::Storage> storage, Layout layout) : FileSysBase(std::move(storage)), layout_(layout) {}

    std::uint32_t type() const override { return FsSwap; }
    Ref<ByteArray> volumeId() const override;

protected:
    // Refuses a swap area that holds a hibernation image: the system it belongs to resumes from
    // it by its id.
    bool writeVolumeId(std::span<const std::uint8_t> id) override;

private:
    Layout layout_;
};

} // namespace Platform
