// Ether types (IEEE 802 Numbers, IANA).
#pragma once

#include <cstdint>

namespace Ostra::EtherType {

inline constexpr std::uint16_t ipv4 = 0x0800;
inline constexpr std::uint16_t arp = 0x0806;
inline constexpr std::uint16_t ipv6 = 0x86DD;
inline constexpr std::uint16_t exactMask = 0xFFFF;

// The only ether types that count as IP.
[[nodiscard]] constexpr bool isIp(std::uint16_t etherType) noexcept {
  return etherType == ipv4 || etherType == ipv6;
}

}  // namespace Ostra::EtherType
