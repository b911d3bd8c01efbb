#pragma once
// exFAT: the volume serial and partition offset live in the main boot region (sectors 0-11) and
// in its backup (12-23); each region ends with a checksum sector that must be recomputed.

#include "platform/fs/filesys_base.h"

#include <optional>

namespace Platform {

class ExfatVolume : public FileSysBase {
public:
    // The bytes per sector when the main boot region is a valid exFAT boot region (its checksum
    // included).
    static std::optional<std::uint32_t> detect(Interfaces::Storage& storage);

    ExfatVolume(Ref<Interfaces::Storage> storage, std::uint32_t bytesPerSector)
        : FileSysBase(std::move(storage)), bytesPerSector_(bytesPerSector)
    {
    }

    std::uint32_t type() const override { return FsExfat; }
    Ref<ByteArray> volumeId() const override;

    // The boot-region checksum over sectors 0-10 (VolumeFlags and PercentInUse left out).
    static std::uint32_t bootChecksum(std::span<const std::uint8_t> region, std::uint32_t bytesPerSector);

protected:
    bool writeVolumeId(std::span<const std::uint8_t> id) override;
    bool writePartitionOffset(std::uint64_t sector) override;

private:
    bool updateBootRegions(std::size_t offset, std::span<const std::uint8_t> value);

    std::uint32_t bytesPerSector_;
};

} // namespace Platform
