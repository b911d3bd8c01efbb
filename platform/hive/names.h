#pragma once
// Key and value names as a hive stores and compares them: Latin-1 when every UTF-16 unit fits a
// byte (the "compressed" form), UTF-16LE otherwise; compared upper-cased per UTF-16 unit, with no
// expansion, as Windows does.

#include <cstdint>
#include <string>
#include <vector>

namespace Platform::Hive {

struct StoredName {
    std::vector<std::uint8_t> bytes;
    bool compressed = false;
    std::size_t units = 0; // UTF-16 units, which the key's maximum-length fields count (twice)
};

StoredName storedName(const std::string& name);
// Upper case per UTF-16 unit: ASCII, Latin-1, Latin Extended-A, Greek and Cyrillic letters.
std::u16string upperUnits(const std::string& name);
bool sameName(const std::string& a, const std::string& b);
// Whether a sorts before b in a subkey list.
bool sortsBefore(const std::string& a, const std::string& b);
// The lh element's hash: 37 * hash + unit over the upper-cased units.
std::uint32_t nameHash(const std::string& name);
// The lf element's hint: the first four units as bytes, zero-padded; zero when one is over 0xFF.
std::uint32_t nameHint(const std::string& name);

} // namespace Platform::Hive
