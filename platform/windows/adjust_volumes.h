#pragma once
// Makes a copied Windows find its volumes on the disk it was copied to: the drive-letter records
// in SYSTEM\MountedDevices and the device elements of every boot configuration store on a file
// system are rewritten from the old disk id and partition identities to the new ones. Records of
// other disks, device paths, boot and locate devices stay as they are.

#include "platform/core/byte_array.h"
#include "platform/fs/filesys.h"
#include "platform/windows/volume_identity.h"

#include <optional>
#include <vector>

namespace Platform::Windows {

class AdjustWindowsVolumes : public Object {
public:
    // Disk ids are 4 bytes (MBR signature) or 16 (GPT disk GUID); null otherwise.
    static Ref<AdjustWindowsVolumes> create(const Ref<ByteArray>& fromDisk, const Ref<ByteArray>& toDisk);

    // One partition: its old and new key (an 8-byte little-endian byte offset on an MBR disk, the
    // partition GUID on a GPT disk) on the old and the new disk. False for ids of other sizes.
    bool addMapping(const Ref<ByteArray>& fromPartition, const Ref<ByteArray>& toPartition,
                    const Ref<ByteArray>& fromDisk, const Ref<ByteArray>& toDisk);
    // Every store of findBootStores on fs; false when there is none or one could not be written.
    bool adjustBcd(const Ref<Filesys>& fs);
    // The MountedDevices records of the Windows on fs; false when there is none or the hive could
    // not be written. options: reserved, pass null.
    bool adjustMountedDevices(const Ref<Filesys>& fs, const Ref<Object>& options);

    // The identity a volume named old has after the copy; nothing when old is not on this disk or
    // stays as it is.
    std::optional<VolumeIdentity> map(const VolumeIdentity& old) const;

    AdjustWindowsVolumes(VolumeIdentity::Bytes fromDisk, VolumeIdentity::Bytes toDisk)
        : fromDisk_(std::move(fromDisk)), toDisk_(std::move(toDisk))
    {
    }

private:
    struct Mapping {
        VolumeIdentity from, to;
    };
    bool adjustStore(const Ref<Filesys>& fs, const std::string& path);

    VolumeIdentity::Bytes fromDisk_, toDisk_;
    std::vector<Mapping> mappings_;
};

} // namespace Platform::Windows
