#include "cli/fs_command.h"

#include "cli/partition_fs.h"
#include "cli/terminal.h"

#include "platform/core/error.h"
#include "platform/fs/filesys.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace Cli {

namespace {

using namespace Platform;

constexpr int kDone = 0;
constexpr int kMissing = 1;
constexpr int kUsage = 2;
constexpr const char* kUsageText = "usage: postclone fs ls|cat|sectors|put|mkdir|rm TARGET PARTITION PATH [LOCAL_FILE]";

int failure(int code, const std::string& message)
{
    std::fprintf(stderr, "postclone: %s\n", message.c_str());
    return code;
}

int list(Filesys& fs, const std::string& path)
{
    const auto directory = fs.openDirectory(path);
    if (!directory)
        return failure(kMissing, path + ": " + errorText());
    for (DirectoryEntry entry; directory->next(entry);)
        std::printf(entry.type == 1 ? "%s/\n" : "%s\t%llu\n", entry.name.c_str(), (unsigned long long)entry.size);
    return kDone;
}

int cat(Filesys& fs, const std::string& path)
{
    const auto file = fs.openFile(path, OpenFlags::Read);
    if (!file)
        return failure(kMissing, path + ": " + errorText());
    std::vector<char> buffer(1 << 16);
    Error::set(Error::None);
    for (std::uint64_t done; (done = file->read(buffer.data(), buffer.size())) > 0;)
        std::fwrite(buffer.data(), 1, done, stdout);
    return Error::get() == Error::None ? kDone : failure(kMissing, path + ": " + errorText());
}

// Where the file lies: one "start count" line per area, in partition sectors, in file order.
int sectors(Filesys& fs, const std::string& path)
{
    const auto file = fs.openFile(path, OpenFlags::Read);
    if (!file)
        return failure(kMissing, path + ": " + errorText());
    const auto areas = file->allocation();
    if (!areas)
        return failure(kMissing, path + ": " + errorText());
    for (const Area& area : *areas)
        std::printf("%llu %llu\n", (unsigned long long)area.start, (unsigned long long)area.count);
    return kDone;
}

int put(Filesys& fs, const std::string& path, const std::string& local)
{
    std::ifstream in(local, std::ios::binary);
    if (!in)
        return failure(kMissing, "cannot read '" + local + "'");
    const auto file = fs.openFile(path, OpenFlags::CreateOrTruncate);
    if (!file)
        return failure(kMissing, path + ": " + errorText());
    std::vector<char> buffer(1 << 16);
    while (in.read(buffer.data(), std::streamsize(buffer.size())) || in.gcount() > 0) {
        const auto count = std::uint64_t(in.gcount());
        if (file->write(buffer.data(), count) != count)
            return failure(kMissing, path + ": write failed, " + errorText());
    }
    return file->flush() && fs.flush() ? kDone : failure(kMissing, path + ": flush failed");
}

} // namespace

int runFsCommand(int argc, char** argv)
{
    // argv: postclone fs VERB TARGET PARTITION PATH [LOCAL_FILE]
    if (argc < 6)
        return failure(kUsage, kUsageText);
    const std::string verb = argv[2], target = argv[3], path = argv[5];
    const bool needsLocal = verb == "put";
    const bool reads = verb == "ls" || verb == "cat" || verb == "sectors";
    const bool known = reads || verb == "put" || verb == "mkdir" || verb == "rm";
    unsigned number = 0;
    try {
        number = unsigned(std::stoul(argv[4]));
    } catch (...) {
        return failure(kUsage, std::string("PARTITION must be a number, not '") + argv[4] + "'");
    }
    if (!known || number == 0 || argc != (needsLocal ? 7 : 6))
        return failure(kUsage, kUsageText);

    SysLogStream::install(std::make_shared<StderrLog>());
    SysLogFilter::setLevel(LogWarning);
    const Access access = reads ? Access::ReadOnly : Access::ReadWrite;
    std::string error;
    const auto fs = openPartition(target, number, access, error);
    if (!fs)
        return failure(kMissing, error);
    if (verb == "ls")
        return list(*fs, path);
    if (verb == "cat")
        return cat(*fs, path);
    if (verb == "sectors")
        return sectors(*fs, path);
    if (verb == "put")
        return put(*fs, path, argv[6]);
    const bool ok = verb == "mkdir" ? fs->createDirectory(path) : fs->removeFile(path);
    if (!ok || !fs->flush())
        return failure(kMissing, path + ": " + errorText());
    return kDone;
}

} // namespace Cli
