#include "postprocessing/pp_handler.h"
#include "postprocessing/tools/format_fs_id.h"

namespace Libraries::KRO::PostProcessing {

Variant PPHandler::encodeCHS(u32 cylinder, u32 head, u32 sector)
{
    return Variant::list(
        {{"CYL", Variant::integer(cylinder)}, {"HEAD", Variant::integer(head)}, {"SEC", Variant::integer(sector)}});
}

Ref<String> PPHandler::formatStorageID(Ref<ByteArray> id, UUIDHelper::PlatformFormat format)
{
    if (!id)
        return {};
    return Tools::formatFsID(std::move(id), format);
}

} // namespace Libraries::KRO::PostProcessing
