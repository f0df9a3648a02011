// The names that tie a Corvex flow to its P4Runtime entry.
//
// Thread and process rule: values and free functions without state.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "platform/Korm/Entity.h"

namespace Ostra {

// "flow-" and the identifier, an entry handle, in decimal.
[[nodiscard]] Korm::String buildFlowName(std::uint64_t identifier);

// The same in place, for the paths that cannot spare the memory of a string; `suffix`, of at most
// `longestSuffix` characters, follows.
class FlowName {
 public:
  static constexpr std::size_t longestSuffix = 8;

  explicit FlowName(std::uint64_t identifier, std::string_view suffix = {}) noexcept;

  [[nodiscard]] std::string_view text() const noexcept { return {text_.data(), length_}; }

 private:
  std::array<char, 5 + 20 + longestSuffix> text_;  // 20 digits hold any 64-bit number
  std::size_t length_;
};

// The identifier in a flow name, read as sscanf reads "flow-%lu": white space and a sign may stand before
// the number, whatever stands behind it is ignored, a negative one wraps around, and one too large
// for 64 bits is the largest. A name that does not parse is traced and gives 0, as "flow-0" does.
[[nodiscard]] std::uint64_t flowIdFromName(const Korm::String& name);

}  // namespace Ostra
