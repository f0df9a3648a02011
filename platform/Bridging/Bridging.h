// VLAN ids.
#pragma once

#include <cstdint>

#include "platform/Korm/BoundedValue.h"

namespace Bridging {

namespace detail {
struct VlanIdOrNoneLimits {
  static constexpr std::uint16_t min = 0;
  static constexpr std::uint16_t max = 4094;
  static constexpr const char* message = "VlanIdOrNone::value > 4094 not allowed";
};
struct VlanIdOrAnyOrNoneLimits {
  static constexpr std::uint16_t min = 0;
  static constexpr std::uint16_t max = 4095;
  static constexpr const char* message = "VlanIdOrAnyOrNone::value > 4095 not allowed";
};
}  // namespace detail

// An IEEE 802.1Q VLAN id, or 0 for none.
using VlanIdOrNone = Korm::BoundedValue<std::uint16_t, detail::VlanIdOrNoneLimits>;

// The same, or 4095 for any; also the mask of a VLAN id.
using VlanIdOrAnyOrNone = Korm::BoundedValue<std::uint16_t, detail::VlanIdOrAnyOrNoneLimits>;

}  // namespace Bridging
