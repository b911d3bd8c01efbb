#pragma once
// The facade over FAT12, FAT16 and FAT32: long and short names, case-insensitive lookup as
// Windows sees names, cluster chains that grow and shrink, every FAT copy kept equal and the
// FAT32 FSInfo free count kept right. Damaged chains (loops, clusters out of range) and
// directories that contain themselves are errors, never followed.

#include "platform/fs/filesys.h"

#include <array>
#include <memory>
#include <optional>
#include <vector>

namespace Platform {

class FatFilesys : public Filesys {
public:
    // Null when the storage holds no FAT file system we can use.
    static Ref<FatFilesys> open(Ref<Interfaces::Storage> storage, bool readOnly);

    Ref<File> openFile(const std::string& path, std::uint32_t flags) override;
    Ref<Directory> openDirectory(const std::string& path) override;
    bool createDirectory(const std::string& path) override;
    bool removeFile(const std::string& path) override;
    bool flush() override;
    bool readOnly() const override { return readOnly_; }

    // What a file object needs from its file system; the rest of the class is internal.
    struct Volume;
    struct Node {
        std::string name;
        std::uint8_t attributes = 0;
        std::uint32_t firstCluster = 0;
        std::uint32_t size = 0;
        std::uint64_t entryOffset = 0;              // the 8.3 entry's byte offset, 0 for the root
        std::array<std::uint8_t, 11> shortName{};   // as the 8.3 entry holds it
        std::vector<std::uint64_t> longNameOffsets; // its long-name entries
        bool isDirectory() const { return attributes & 0x10; }
    };

    FatFilesys(std::unique_ptr<Volume> volume, bool readOnly);
    ~FatFilesys() override;
    Volume& volume() { return *volume_; }

private:
    std::optional<Node> lookup(const std::string& path);
    std::optional<Node> createEntry(const std::string& path, std::uint8_t attributes, std::uint32_t firstCluster);

    std::unique_ptr<Volume> volume_;
    bool readOnly_;
};

} // namespace Platform
