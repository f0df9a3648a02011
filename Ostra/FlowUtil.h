// The names that tie a Corvex flow to its P4Runtime entry.
//
// Threads: any; these are values and functions without state.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "platform/Korm/Entity.h"

namespace Ostra {

// Follows the name of a flow of this library in the statistics of the hardware units.
inline constexpr std::string_view flowCounterSuffix = "-p4rt";

// "flow-" and the identifier, an entry handle, in decimal.
[[nodiscard]] Korm::String buildFlowName(std::uint64_t identifier);

// The same without allocating memory, for the paths that are to be fast. `suffix` follows the
// number.
// Requires: `suffix` has at most `longestSuffix` characters.
class FlowName {
 public:
  static constexpr std::size_t longestSuffix = 8;

  explicit FlowName(std::uint64_t identifier, std::string_view suffix = {}) noexcept;

  [[nodiscard]] std::string_view text() const noexcept { return {text_.data(), length_}; }

 private:
  std::array<char, 5 + 20 + longestSuffix> text_;  // 20 digits hold any 64-bit number
  std::size_t length_;
};

// The identifier in a flow name, read as sscanf reads "flow-%lu". White space and a sign may stand
// before the number, and whatever stands behind it is ignored. A negative number wraps around. A
// number too large for 64 bits gives the largest. A name that does not parse is traced and gives 0,
// as "flow-0" does.
[[nodiscard]] std::uint64_t flowIdFromName(const Korm::String& name);

}  // namespace Ostra
