// The names that tie a Corvex flow to its P4Runtime entry.
//
// Threads: any; these are values and functions without state.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "platform/Korm/Entity.h"

namespace Ostra {

// The hardware units keep the statistics of a flow of this library under its name and this suffix.
inline constexpr std::string_view flowCounterSuffix = "-p4rt";

inline constexpr std::string_view flowNamePrefix = "flow-";

// "flow-" and the identifier, an entry handle, in decimal.
[[nodiscard]] Korm::String buildFlowName(std::uint64_t identifier);

// The same without allocating memory, for the fast paths. `suffix` follows the number.
// Requires: `suffix` has at most `longestSuffix` characters.
class FlowName {
 public:
  static constexpr std::size_t longestSuffix = 8;

  explicit FlowName(std::uint64_t identifier, std::string_view suffix = {}) noexcept;

  [[nodiscard]] std::string_view text() const noexcept { return {text_.data(), length_}; }

 private:
  // 20 digits hold any 64-bit number.
  std::array<char, flowNamePrefix.size() + 20 + longestSuffix> text_;
  std::size_t length_;
};

// The identifier in a flow name, parsed as sscanf parses "flow-%lu". White space and a sign may
// precede the number, and anything may follow it. A negative number wraps around. A number too
// large for 64 bits gives the largest one. A name that does not parse is traced and gives 0, like
// "flow-0".
[[nodiscard]] std::uint64_t flowIdFromName(const Korm::String& name);

}  // namespace Ostra
