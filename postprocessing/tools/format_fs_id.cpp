#include "postprocessing/tools/format_fs_id.h"

#include "platform/core/string_util.h"
#include "postprocessing/log_channels.h"

namespace Libraries::KRO::PostProcessing::Tools {

using Platform::StrConv;

namespace {

u64 littleEndian(const ByteArray& bytes)
{
    u64 value = 0;
    for (std::size_t i = bytes.size(); i-- > 0;)
        value = value << 8 | bytes[i];
    return value;
}

} // namespace

Ref<String> formatFsID(Ref<ByteArray> id, UUIDHelper::PlatformFormat format)
{
    if (!id) {
        LogMessage(Channels::tools(), LogError) << "Libraries::KRO::PostProcessing::Tools::formatFsID: No buffer";
        return {};
    }
    switch (id->size()) {
    case 4: {
        const u64 v = littleEndian(*id);
        return String::create(StrConv::str(v >> 16, 16, 4) + "-" + StrConv::str(v & 0xFFFF, 16, 4));
    }
    case 8: {
        const u64 v = littleEndian(*id);
        return String::create(StrConv::str(v >> 32, 16, 8) + "-" + StrConv::str(v & 0xFFFFFFFF, 16, 8));
    }
    case 16:
        return UUIDHelper::formatUUID(UUID::fromBytes(id->bytes().first<16>()), 'D', format);
    default:
        LogMessage(Channels::tools(), LogWarning) << "Cannot handle fsid with size " << id->size();
        return {};
    }
}

std::string hexBytes(const ByteArray* bytes)
{
    std::string text;
    for (std::size_t i = 0; bytes && i < bytes->size(); ++i)
        text += StrConv::str((*bytes)[i], 16, 2);
    return text;
}

} // namespace Libraries::KRO::PostProcessing::Tools
