#pragma once
// A file system whose own signature is there but whose structures are impossible: a boot sector
// with "NTFS" and no usable geometry, a FAT boot sector with no clusters, a superblock that fails
// its checksum. It is refused by every change, with the reason, instead of being taken for an
// unknown partition that the run passes over in silence.

#include "platform/fs/filesys_base.h"

#include <functional>
#include <optional>

namespace Platform {

class DamagedVolume : public FileSysBase {
public:
    struct Damage {
        std::uint32_t type;
        std::string reason;
    };
    // The family whose signature the storage carries, with why it is refused (whatIsWrong: the
    // family detector's own words, or empty); nothing when it carries none.
    static std::optional<Damage> detect(Interfaces::Storage& storage,
                                        const std::function<std::string(std::uint32_t type)>& whatIsWrong);

    DamagedVolume(Ref<Interfaces::Storage> storage, std::uint32_t type, std::string reason)
        : FileSysBase(std::move(storage)), type_(type), reason_(std::move(reason))
    {
    }

    std::uint32_t type() const override { return type_; }
    Ref<ByteArray> volumeId() const override { return {}; }
    std::string refusal() const override { return reason_; }

protected:
    bool writeVolumeId(std::span<const std::uint8_t>) override { return fail(Error::Corrupt, reason_); }
    bool writePartitionOffset(std::uint64_t) override { return fail(Error::Corrupt, reason_); }
    bool writeGeometry(std::uint32_t, std::uint32_t) override { return fail(Error::Corrupt, reason_); }

private:
    std::uint32_t type_;
    std::string reason_;
};

} // namespace Platform
