// VRF ids.
#pragma once

#include <cstdint>

namespace Vrf {

struct VrfIdMap {
  // Identifies a VRF within the switch.
  using VrfId = std::uint32_t;

  // The value that means no VRF.
  static constexpr VrfId none = 0xFFFFFF;
};

}  // namespace Vrf
