#pragma once
// The small operations on a boot configuration store's objects and elements: an object is a key
// of "Objects" named by its GUID, with Description\Type and one key per element under
// "Elements", each holding its data in the value "Element".

#include "platform/core/byte_array.h"
#include "platform/hive/hive_file.h"

#include <string>
#include <vector>

namespace Platform::Windows {

using Hive::KeyNode;
using Hive::ValueNode;

inline constexpr std::uint32_t kResumeObjectType = 0x10200004;

// The names of the objects whose type is a resume application, in the store's order.
std::vector<std::string> findResumeObjects(const Ref<KeyNode>& objects);
// The "Element" value of the element id below key (an object, or its Elements key itself), made
// with its keys when missing, with that type and no data.
Ref<ValueNode> createElement(const Ref<KeyNode>& key, const std::string& elementId, std::uint32_t type);
Ref<KeyNode> getElementKey(const Ref<KeyNode>& key, const std::string& elementId);
// The "Element" value when it is a string; null otherwise (logged).
Ref<ValueNode> getStringElement(const Ref<KeyNode>& object, const std::string& elementId);
bool renameElement(const Ref<KeyNode>& object, const std::string& oldId, const std::string& newId);
// A partition device of a GPT partition: 16-byte ids as held (an id of another size is logged
// and left zero).
bool setPartitionDeviceElement(const Ref<KeyNode>& object, const std::string& elementId, const Ref<ByteArray>& diskId,
                               const Ref<ByteArray>& partitionId);
// A new object named name with everything of source.
Ref<KeyNode> copyObject(const Ref<KeyNode>& objects, const Ref<KeyNode>& source, const std::string& name);

} // namespace Platform::Windows
