#include "platform/fs/bios_boot_sector.h"

#include "platform/storage/byte_io.h"

namespace Platform {

namespace BPB = BiosParameterBlock;

bool BiosBootSectorVolume::updateBootSector(const std::function<void(ByteWriter&)>& change)
{
    auto boot = readBytes(*storage_, 0, bytesPerSector_);
    if (boot.empty())
        return fail(Error::Io, "the boot sector cannot be read");
    ByteWriter out(boot);
    change(out);
    if (!out.ok())
        return fail(Error::Invalid, "the change does not fit the boot sector");
    if (backupOffset_ != 0 && !writeBytes(*storage_, backupOffset_, boot))
        return fail(Error::Io,
                    "the backup boot sector at byte " + std::to_string(backupOffset_) + " cannot be written");
    if (!writeBytes(*storage_, 0, boot))
        return fail(Error::Io, "the boot sector cannot be written");
    return true;
}

bool BiosBootSectorVolume::writePartitionOffset(std::uint64_t sector)
{
    if (sector > 0xFFFFFFFF)
        return fail(Error::TooLarge, "the partition starts beyond what the hidden-sectors field holds");
    return updateBootSector([&](ByteWriter& out) { out.u32(BPB::kHiddenSectors, std::uint32_t(sector)); });
}

bool BiosBootSectorVolume::writeGeometry(std::uint32_t heads, std::uint32_t sectorsPerTrack)
{
    // Only the low 16 bits of each fit the fields.
    return updateBootSector([&](ByteWriter& out) {
        out.u16(BPB::kSectorsPerTrack, std::uint16_t(sectorsPerTrack));
        out.u16(BPB::kHeads, std::uint16_t(heads));
    });
}

} // namespace Platform
