// The order in which names with numbers are shown.
#pragma once

#include <string_view>

namespace Sim {

// Orders by the first number in the name ("flow-7": 7), which may have any length, and then as
// text. Names without a number come last.
[[nodiscard]] bool numberedBefore(std::string_view a, std::string_view b) noexcept;

}  // namespace Sim
