#include "cli/plan.h"

#include "postprocessing/pp_handler.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Cli {

namespace PP = Libraries::KRO::PostProcessing;

namespace {

std::string checkMedium(const std::string& path, const char* role, int mode)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        return std::string("cannot open ") + role + " '" + path + "': " + std::strerror(errno);
    if (!S_ISREG(info.st_mode) && !S_ISBLK(info.st_mode))
        return std::string("cannot open ") + role + " '" + path + "': not a disk image file or block device";
    const int fd = ::open(path.c_str(), mode | O_CLOEXEC);
    if (fd < 0)
        return std::string("cannot open ") + role + " '" + path + "': " + std::strerror(errno);
    ::close(fd);
    return {};
}

} // namespace

std::string checkMedia(const Options& options)
{
    for (const auto& target : options.targets)
        if (auto error = checkMedium(target, "target", O_RDWR); !error.empty())
            return error;
    for (const auto& source : options.sources)
        if (auto error = checkMedium(source, "source", O_RDONLY); !error.empty())
            return error;
    return {};
}

Platform::Ref<PP::Keeper> buildKeeper(const Options& options)
{
    auto keeper = PP::Keeper::create();
    if (!keeper)
        return {};
    if (options.preset)
        PP::Keeper::setPreset(keeper, nullptr, PP::Keeper::Preset(*options.preset));
    for (const auto& change : options.switches)
        keeper->setEnabled(change.slot, change.on);

    for (std::size_t i = 0; i < options.targets.size(); ++i) {
        PP::VariantList from;
        if (i < options.sources.size())
            from.push_back(PP::Variant::string(options.sources[i]));
        const PP::u64 disk =
            keeper->addEntry(PP::KindDisk, from, {PP::Variant::string(options.targets[i])}, 0, 0);
        if (options.geometry) {
            const auto& g = *options.geometry;
            keeper->addEntry(PP::KindDiskGeometry, {}, {PP::PPHandler::encodeCHS(g.cylinders, g.heads, g.sectors)},
                             disk, 0);
        }
        if (options.computerName)
            keeper->addEntry(PP::KindComputerName, {}, {PP::Variant::string(*options.computerName)}, disk, 0);
    }
    return keeper;
}

} // namespace Cli
