#include "postprocessing/tools/uuid_helper.h"

#include "platform/core/random.h"
#include "platform/core/string_util.h"
#include "postprocessing/log_channels.h"

namespace Libraries::KRO::PostProcessing {

using Platform::StrConv;

UUID UUID::fromBytes(std::span<const u8, 16> b) noexcept
{
    UUID uuid;
    uuid.data1 = u32(b[0]) | u32(b[1]) << 8 | u32(b[2]) << 16 | u32(b[3]) << 24;
    uuid.data2 = u16(b[4] | b[5] << 8);
    uuid.data3 = u16(b[6] | b[7] << 8);
    for (std::size_t i = 0; i < 8; ++i)
        uuid.data4[i] = b[8 + i];
    return uuid;
}

std::array<u8, 16> UUID::toBytes() const noexcept
{
    return {u8(data1), u8(data1 >> 8), u8(data1 >> 16), u8(data1 >> 24), u8(data2), u8(data2 >> 8),
            u8(data3), u8(data3 >> 8), data4[0],        data4[1],        data4[2],  data4[3],
            data4[4],  data4[5],       data4[6],        data4[7]};
}

std::array<u8, 16> UUID::toTextOrderBytes() const noexcept
{
    return {u8(data1 >> 24), u8(data1 >> 16), u8(data1 >> 8), u8(data1), u8(data2 >> 8), u8(data2),
            u8(data3 >> 8),  u8(data3),       data4[0],       data4[1],  data4[2],       data4[3],
            data4[4],        data4[5],        data4[6],       data4[7]};
}

UUID UUIDHelper::createRandom()
{
    static const Ref<Platform::Random> generator = Platform::Random::create();
    const u32 w0 = generator->next32();
    const u32 w1 = generator->next32();
    const u32 w2 = generator->next32();
    const u32 w3 = generator->next32();

    UUID uuid;
    uuid.data1 = w0;
    uuid.data2 = u16(w1 >> 16);
    uuid.data3 = u16((w1 & 0x0FFF) | 0x4000);
    uuid.data4 = {u8((w2 & 0x3F) | 0x80), u8(w2 >> 8), u8(w2 >> 16), u8(w2 >> 24), u8(w3), u8(w3 >> 8),
                  u8(w3 >> 16),           u8(w3 >> 24)};
    return uuid;
}

UUID UUIDHelper::fromFields(u32 a, u16 b, u16 c, u16 d, u64 e) noexcept
{
    UUID uuid;
    uuid.data1 = a;
    uuid.data2 = b;
    uuid.data3 = c;
    uuid.data4[0] = u8(d >> 8);
    uuid.data4[1] = u8(d);
    for (int i = 0; i < 6; ++i)
        uuid.data4[2 + i] = u8(e >> (40 - 8 * i));
    return uuid;
}

bool UUIDHelper::parse(Ref<String> text, UUID& out)
{
    if (!text)
        return false;
    std::string_view body = text->str();
    const bool curly = body.starts_with('{');
    const bool round = body.starts_with('(');
    if (curly || round) {
        if (body.size() < 2 || !body.ends_with(curly ? '}' : ')'))
            return false;
        body = body.substr(1, body.size() - 2);
    }
    const auto pieces = Platform::StringUtil::split(body, "-");
    if (pieces.size() != 5)
        return false;
    u32 p1, p2, p3, p4;
    u64 p5;
    if (!StrConv::num(pieces[0], p1, 16) || !StrConv::num(pieces[1], p2, 16) || !StrConv::num(pieces[2], p3, 16) ||
        !StrConv::num(pieces[3], p4, 16) || !StrConv::num(pieces[4], p5, 16))
        return false;
    out = fromFields(p1, u16(p2), u16(p3), u16(p4), p5);
    return true;
}

Ref<String> UUIDHelper::formatUUID(const UUID& uuid, char style, PlatformFormat format)
{
    if (style != 'B' && style != 'D') {
        LogMessage(Channels::tools(), LogError) << "UUIDHelper::formatUUID: Format not supported: " << style;
        return {};
    }
    if (format == Detect)
        format = (uuid.data4[0] & 0xFE) == 0x04 ? MixedEndian : BigEndian;

    std::string text = style == 'B' ? "{" : "";
    if (format == MixedEndian || format == BigEndian) {
        const bool swap = format == BigEndian;
        text += StrConv::str(swap ? __builtin_bswap32(uuid.data1) : uuid.data1, 16, 8) + "-";
        text += StrConv::str(swap ? __builtin_bswap16(uuid.data2) : uuid.data2, 16, 4) + "-";
        text += StrConv::str(swap ? __builtin_bswap16(uuid.data3) : uuid.data3, 16, 4) + "-";
    }
    for (std::size_t i = 0; i < 8; ++i) {
        text += StrConv::str(uuid.data4[i], 16, 2);
        if (i == 1)
            text += "-";
    }
    if (style == 'B')
        text += "}";
    return String::create(text);
}

} // namespace Libraries::KRO::PostProcessing
