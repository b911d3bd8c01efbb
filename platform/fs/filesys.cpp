#include "platform/fs/filesys.h"

#include "platform/core/error.h"

namespace Platform {

LogChannel Filesys::channel()
{
    static const LogChannel registered = SysLogFilter::reg("Filesys");
    return registered;
}

std::optional<std::vector<Area>> File::allocation()
{
    Error::set(Error::NotSupported, "this file system does not say where a file lies");
    return std::nullopt;
}

std::optional<std::vector<std::uint8_t>> readWholeFile(File& file)
{
    std::vector<std::uint8_t> bytes(file.size());
    if (!file.seek(0))
        return std::nullopt;
    for (std::size_t done = 0; done < bytes.size();) {
        const std::uint64_t got = file.read(bytes.data() + done, bytes.size() - done);
        if (got == 0)
            return std::nullopt;
        done += std::size_t(got);
    }
    return bytes;
}

} // namespace Platform
