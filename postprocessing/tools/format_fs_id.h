#pragma once
// The text that logs and user interfaces show for a file-system or storage id.

#include "postprocessing/tools/uuid_helper.h"

namespace Libraries::KRO::PostProcessing::Tools {

// 4 bytes: "HHHH-LLLL" of the little-endian value; 8 bytes: "HHHHHHHH-LLLLLLLL"; 16 bytes: the
// UUID text in the given format. Null (and a log line) for a null or other-sized array.
Ref<String> formatFsID(Ref<ByteArray> id, UUIDHelper::PlatformFormat format);

// The bytes as they lie, two hexadecimal digits each; empty for null. For ids in log lines.
std::string hexBytes(const ByteArray* bytes);

} // namespace Libraries::KRO::PostProcessing::Tools
