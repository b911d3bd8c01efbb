#pragma once
// UUIDs in the GUID layout, their text forms and random creation. The same 16 bytes read
// differently in Windows' mixed-endian text and in big-endian byte-string text; PlatformFormat
// says which one a caller wants.

#include "postprocessing/types.h"

#include <array>
#include <span>

namespace Libraries::KRO::PostProcessing {

struct UUID {
    u32 data1 = 0; // stored little-endian
    u16 data2 = 0;
    u16 data3 = 0;
    std::array<u8, 8> data4{};

    // The 16 bytes as they lie on disk.
    static UUID fromBytes(std::span<const u8, 16> bytes) noexcept;
    std::array<u8, 16> toBytes() const noexcept;
    // The 16 bytes in the order the text shows them, as Linux file systems store a UUID.
    std::array<u8, 16> toTextOrderBytes() const noexcept;
    bool operator==(const UUID&) const = default;
};

class UUIDHelper {
public:
    enum PlatformFormat : s32 { MixedEndian = 0, BigEndian = 1, Detect = 2 };

    // A new version-4 UUID from one process-wide generator.
    static UUID createRandom();
    // Accepts "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", optionally in {} or (), read mixed-endian.
    static bool parse(Ref<String> text, UUID& out);
    static UUID fromFields(u32 a, u16 b, u16 c, u16 d, u64 e) noexcept;
    // style 'B' (braces) or 'D' (none); null and an error line for any other style.
    static Ref<String> formatUUID(const UUID& uuid, char style, PlatformFormat format);
};

} // namespace Libraries::KRO::PostProcessing
