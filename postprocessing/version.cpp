#include "postprocessing/pp_handler.h"

namespace Libraries::KRO::PostProcessing {

// POSTCLONE_VERSION comes from the project's version in the top CMakeLists.txt.
const char* PPHandler::version() noexcept
{
    return POSTCLONE_VERSION;
}

} // namespace Libraries::KRO::PostProcessing
