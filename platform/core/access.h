#pragma once
// Whether an object may change what it was opened on.

namespace Platform {

enum class Access { ReadOnly, ReadWrite };

} // namespace Platform
