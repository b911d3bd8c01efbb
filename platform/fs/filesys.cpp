#include "platform/fs/filesys.h"

namespace Platform {

LogChannel Filesys::channel()
{
    static const LogChannel registered = SysLogFilter::reg("Filesys");
    return registered;
}

} // namespace Platform
