#pragma once
// References to a file system or a partition by id, as Linux configuration files write them:
// "UUID=", "PARTUUID=", "/dev/disk/by-uuid/", "/dev/disk/by-partuuid/".

#include "postprocessing/tools/uuid_replace_map.h"

#include <functional>
#include <string>

namespace Libraries::KRO::PostProcessing::Tools {

// The reference with its id replaced through the map of its kind, keeping the letter case; the
// reference itself when it names no changed id or is not an id reference. A value in double or
// single quotes keeps them.
std::string rewriteDeviceReference(const std::string& reference, const IdMaps& maps);

// text with each blank-separated word for which pick(index) holds passed through rewrite; the
// blanks between words stay as they were.
std::string rewriteWords(const std::string& text, const std::function<bool(std::size_t index)>& pick,
                         const std::function<std::string(const std::string& word)>& rewrite);

} // namespace Libraries::KRO::PostProcessing::Tools
