#include "platform/fs/fat/volume.h"
#include "platform/fs/fat/filesys.h"

#include "platform/fs/fat/layout.h"
#include "platform/storage/byte_io.h"

namespace Platform {

Ref<ByteArray> FatVolume::volumeId() const
{
    return boot_.serialOffset == 0 ? Ref<ByteArray>() : idAt(boot_.serialOffset);
}

bool FatVolume::writeVolumeId(std::span<const std::uint8_t> id)
{
    if (boot_.serialOffset == 0)
        return fail(Error::NotSupported, "the boot sector has no volume serial field");
    return updateBootSector([&](ByteWriter& out) { out.bytes(boot_.serialOffset, id); });
}

Ref<Filesys> FatVolume::openFiles(Ref<Interfaces::Storage> storage, Access access, std::uint32_t) const
{
    return FatFilesys::open(std::move(storage), boot_, access);
}

} // namespace Platform
