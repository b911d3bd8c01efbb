// The file facades (FAT by our own code, ext and NTFS through their libraries): the directory
// tree walked, every file read, one file written.

#include "fuzz/fuzz_input.h"
#include "platform/fs/filesys.h"

namespace {

void walk(Platform::Filesys& fs, const std::string& path, int depth, int& budget)
{
    const auto directory = fs.openDirectory(path);
    for (Platform::DirectoryEntry entry; directory && budget-- > 0 && directory->next(entry);) {
        const std::string child = (path == "/" ? "" : path) + "/" + entry.name;
        if (entry.type == 1 && depth < 4) {
            walk(fs, child, depth + 1, budget);
        } else if (const auto file = fs.openFile(child, Platform::OpenFlags::Read)) {
            std::vector<char> buffer(4096);
            for (int chunks = 0; chunks < 16 && file->read(buffer.data(), buffer.size()) > 0; ++chunks) {
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz::quietLogs();
    const auto disk = Fuzz::diskOf(data, size, 256);
    const auto fs = Platform::Filesys::create(disk, Platform::OpenFlags::FileSystemByPath, Platform::Access::ReadWrite);
    if (!fs)
        return 0;
    int budget = 256;
    walk(*fs, "/", 0, budget);
    if (const auto file = fs->openFile("/etc/fstab", Platform::OpenFlags::CreateOrTruncate)) {
        const char text[] = "UUID=1234-ABCD / vfat defaults 0 1\n";
        file->write(text, sizeof text - 1);
        file->flush();
    }
    fs->flush();
    return 0;
}
