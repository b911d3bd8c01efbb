#pragma once
// The hive readers we did not write (hivexregedit, regfexport) as the hive tests run them, and our
// own tree in the form they are compared in.

#include "platform/hive/hive_file.h"

#include <set>
#include <string>

namespace TestSupport {

// `hivexregedit --export PATH KEY` without its two header lines. It prints Latin-1 names as raw
// bytes; those are turned into UTF-8 here, as our export writes every name.
std::string hivexExport(const std::string& path, const std::string& key = "\\");

// Every key and value as "path|value|type|size" (the root's name left out): what regfexport
// prints, and what our engine holds. Strings go without their size: regfexport counts them its
// own way (and reads on past their terminator); hivexregedit compares their bytes.
std::set<std::string> regfexportItems(const std::string& path);
std::set<std::string> hiveItems(const Platform::Ref<Platform::Hive::KeyNode>& root);
// Empty when the sets are equal, else the first item each side has alone.
std::string itemsDiffer(const std::set<std::string>& ours, const std::set<std::string>& theirs);

} // namespace TestSupport
