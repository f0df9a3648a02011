// The match fields of a flow entry: one line each, and nowhere else.
//
// A line gives
// - the accessor in OstraKey,
// - the type of the value and the mask,
// - the name in the P4 program,
// - the width in bits (MatchWidth), which is also the width of an exact mask; an IP address of 32
//   bits is IPv4,
// - what else the entry must match so that the field may be constrained (MatchNeeds),
// - the rule by which the field becomes part of the Corvex match
//   (Ostra/private/MatchTranslation.cpp).
// Storage, text form, parser, checks, translation and the names in the command language all come
// from the line. The order of the lines is the order of the fields in the key. Where several fields
// share a Corvex field, a later one overwrites an earlier one.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <string_view>

#include "Ostra/EtherType.h"

namespace Ostra {

// What else an entry must match so that a field may be constrained. The ether type must be exact,
// because the hardware must know which header it reads, and the is-IP-packet flag does not say
// that. The needs are checked in this order.
enum class MatchNeeds : std::uint8_t {
  ip6_,
  ip4_,
  arp_,
  ip4OrIp6_,
  ipPacket_,  // IPv4, IPv6, or the is-IP-packet flag
  none_,
};

// Whether an exact match on this ether type meets the need. False for none_.
[[nodiscard]] constexpr bool isMetBy(MatchNeeds needs, std::uint16_t etherType) noexcept {
  switch (needs) {
    case MatchNeeds::ip6_:
      return etherType == EtherType::ipv6;
    case MatchNeeds::ip4_:
      return etherType == EtherType::ipv4;
    case MatchNeeds::arp_:
      return etherType == EtherType::arp;
    case MatchNeeds::ip4OrIp6_:
    case MatchNeeds::ipPacket_:
      return EtherType::isIp(etherType);
    case MatchNeeds::none_:
      break;
  }
  return false;
}

// The number of bits in a field's value and mask.
struct MatchWidth {
  // NOLINTNEXTLINE(google-explicit-constructor)
  constexpr MatchWidth(unsigned count) noexcept : bits{count} {}

  // The exact mask of a field that is stored as a T.
  template <std::unsigned_integral T>
  [[nodiscard]] constexpr T allOnes() const noexcept {
    return static_cast<T>(std::numeric_limits<T>::max() >> (std::numeric_limits<T>::digits - bits));
  }

  unsigned bits;
  // Whether the translation refuses wider values, with an error message of its own. The command
  // language then accepts them.
  bool checkedByTranslation = false;
};

constexpr MatchWidth checkedByTranslation(unsigned bits) noexcept {
  MatchWidth width = bits;
  width.checkedByTranslation = true;
  return width;
}

// The parts of a line that do not concern the translation.
struct MatchFieldInfo {
  std::string_view name;
  MatchWidth width;
  MatchNeeds needs;
};

}  // namespace Ostra

#define OSTRA_MATCH_FIELDS(FIELD)                                                                  \
  FIELD(ingressPort, P4Runtime::P4PortId, "ingress_port", 32, none_, Port)                         \
  FIELD(egressPort, P4Runtime::P4PortId, "egress_port", 32, none_, Port)                           \
  FIELD(ethSrc, Korm::EthAddr, "hdr.ethernet.src_addr", 48, none_, To<&Match::ethSrcIs>)           \
  FIELD(ethDst, Korm::EthAddr, "hdr.ethernet.dst_addr", 48, none_, To<&Match::ethDstIs>)           \
  FIELD(etherType, std::uint16_t, "hdr.ethernet.ether_type", 16, none_, To<&Match::etherTypeIs>)   \
  FIELD(vlanId, std::uint16_t, "local_metadata.vlan_id", checkedByTranslation(12), none_, Vlan)    \
  FIELD(ip4Src, Korm::IpAddr, "hdr.ipv4_base.src_addr", 32, ip4_, Ip4<&Match::ipSrcIs>)            \
  FIELD(ip4Dst, Korm::IpAddr, "hdr.ipv4_base.dst_addr", 32, ip4_, Ip4<&Match::ipDstIs>)            \
  FIELD(ip4Dscp, std::uint8_t, "hdr.ipv4_base.dscp", 6, none_, Dscp)                               \
  FIELD(ip4Protocol, std::uint8_t, "hdr.ipv4_base.protocol", 8, none_, To<&Match::ipProtoIs>)      \
  FIELD(ip4Ttl, std::uint8_t, "hdr.ipv4_base.ttl", 8, none_, To<&Match::ttlIs>)                    \
  FIELD(ip6Src, Korm::IpAddr, "hdr.ipv6_base.src_addr", 128, ip6_, Ip6<&Match::ip6SrcIs>)          \
  FIELD(ip6Dst, Korm::IpAddr, "hdr.ipv6_base.dst_addr", 128, ip6_, Ip6<&Match::ip6DstIs>)          \
  FIELD(ip6Dscp, std::uint8_t, "hdr.ipv6_base.dscp", 6, none_, Dscp)                               \
  FIELD(ip6NextHeader, std::uint8_t, "hdr.ipv6_base.next_header", 8, none_, To<&Match::ipProtoIs>) \
  FIELD(ip6HopLimit, std::uint8_t, "hdr.ipv6_base.hop_limit", 8, none_, To<&Match::ttlIs>)         \
  FIELD(arpTarget, Korm::IpAddr, "hdr.arp.target_proto_addr", 32, arp_,                            \
        Ip4<&Match::arpTargetAddrIs>)                                                              \
  FIELD(icmpType, std::uint8_t, "hdr.icmp.type", 8, ip4OrIp6_, To<&Match::icmpTypeIs>)             \
  FIELD(dscp, std::uint8_t, "local_metadata.dscp", 6, ipPacket_, Dscp)                             \
  FIELD(nextHeader, std::uint8_t, "local_metadata.next_header", 8, ipPacket_,                      \
        To<&Match::ipProtoIs>)                                                                     \
  FIELD(hopLimit, std::uint8_t, "local_metadata.hop_limit", 8, ipPacket_, To<&Match::ttlIs>)       \
  FIELD(l4SrcPort, std::uint16_t, "local_metadata.l4_src_port", 16, none_,                         \
        To<&Match::l4SrcPortIs>)                                                                   \
  FIELD(l4DstPort, std::uint16_t, "local_metadata.l4_dst_port", 16, none_,                         \
        To<&Match::l4DstPortIs>)                                                                   \
  FIELD(innerL3Data, std::uint8_t, "local_metadata.inner_l3_data", 8, none_, InnerL3Data)          \
  FIELD(isIpPacket, bool, "local_metadata.isIpPacket", 1, none_, IsIpPacket)
