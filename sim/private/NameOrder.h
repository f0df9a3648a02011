// The order in which names with numbers are shown.
//
// Thread and process rule: a function without state.
#pragma once

#include <string_view>

namespace Sim {

// By the first number in the name ("flow-7": 7; numbers of any length), names without one last,
// equal ones as text.
[[nodiscard]] bool numberedBefore(std::string_view a, std::string_view b) noexcept;

}  // namespace Sim
