#pragma once
// The command line's names for the 31 step slots.

#include <optional>
#include <string_view>

namespace Cli {

// "disk-ids" for slot 0 ... "gpt-migration" for slot 30.
std::string_view stepName(int slot) noexcept;
std::optional<int> stepSlot(std::string_view name) noexcept;

} // namespace Cli
