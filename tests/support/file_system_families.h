#pragma once
// The file-system families the tests make with their own mkfs, with each family's checker.

#include <cstdint>
#include <string>
#include <vector>

namespace TestSupport {

struct Family {
    std::string name;
    std::uint64_t mib;             // partition size
    std::vector<std::string> mkfs; // the partition file is appended
    std::vector<std::string> check;
};

inline const std::vector<Family>& families()
{
    static const std::vector<Family> all{
        {"fat16", 64, {"mkfs.fat", "-F", "16"}, {"fsck.fat", "-n"}},
        {"fat32", 64, {"mkfs.fat", "-F", "32", "-s", "1"}, {"fsck.fat", "-n"}},
        {"exfat", 64, {"mkfs.exfat"}, {"fsck.exfat", "-n"}},
        {"ntfs", 64, {"mkntfs", "-F", "-f", "-q"}, {"ntfsfix", "-n"}},
        {"ext4", 64, {"mkfs.ext4", "-q", "-F"}, {"e2fsck", "-fn"}},
        {"ext4-orphan-file", 64, {"mkfs.ext4", "-q", "-F", "-O", "orphan_file"}, {"e2fsck", "-fn"}},
        {"ext4-csum-seed", 64, {"mkfs.ext4", "-q", "-F", "-O", "metadata_csum_seed"}, {"e2fsck", "-fn"}},
        {"ext3", 64, {"mkfs.ext3", "-q", "-F"}, {"e2fsck", "-fn"}},
        {"ext2", 64, {"mkfs.ext2", "-q", "-F"}, {"e2fsck", "-fn"}},
        {"btrfs", 200, {"mkfs.btrfs", "-q", "-f"}, {"btrfs", "check"}},
        {"xfs", 300, {"mkfs.xfs", "-q", "-f"}, {"xfs_repair", "-n"}},
    };
    return all;
}

} // namespace TestSupport
