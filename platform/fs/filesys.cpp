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

} // namespace Platform
