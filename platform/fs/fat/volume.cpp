#include "platform/fs/fat/volume.h"
#include "platform/fs/fat/filesys.h"

#include "platform/fs/fat/layout.h"
#include "platform/storage/byte_io.h"

namespace Platform {

Ref<ByteArray> FatVolume::volumeId() const
{
    if (boot_.serialOffset == 0)
        return {};
    const auto bytes = readBytes(*storage_, boot_.serialOffset, Fat::Layout::BootSector::kSerialLength);
    return bytes.empty() ? Ref<ByteArray>() : ByteArray::create(bytes);
}

bool FatVolume::writeVolumeId(std::span<const std::uint8_t> id)
{
    if (boot_.serialOffset == 0)
        return fail(Error::NotSupported, "the boot sector has no volume serial field");
    if (id.size() != Fat::Layout::BootSector::kSerialLength)
        return fail(Error::Invalid, "a FAT volume serial is 4 bytes, not " + std::to_string(id.size()));
    return updateBootSector([&](ByteWriter& out) { out.bytes(boot_.serialOffset, id); });
}

Ref<Filesys> FatVolume::openFiles(Ref<Interfaces::Storage> storage, Access access) const
{
    return FatFilesys::open(std::move(storage), boot_, access);
}

} // namespace Platform
