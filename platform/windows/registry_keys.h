#pragma once
// Whole registry keys, copied and deleted through the hive library's key and value nodes: what the
// boot configuration code clones and removes objects with.

#include "platform/hive/hive_file.h"

namespace Platform::Windows {

using Platform::Hive::KeyNode;

// Copies every subkey (depth first, before the values) and every value of source into
// destination, which exists already and keeps its name. Nothing is rolled back on failure.
bool copyRegistryKey(const Ref<KeyNode>& source, const Ref<KeyNode>& destination);
// Deletes everything below key, then key itself from parent.
bool deleteRegistryKey(const Ref<KeyNode>& parent, const Ref<KeyNode>& key);

} // namespace Platform::Windows
