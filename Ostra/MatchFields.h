// The match fields of a flow entry: one line each, and nowhere else.
//
// A line gives the accessor in OstraKey, the type of value and mask, the name in the P4 program, and the
// rule by which the field becomes part of the Corvex match (the rules stand in Ostra/MatchTranslation.h).
// Storage, text form, parser, translation and the names that ostra-sim reads follow from the line. The
// order is that of the key: where several fields share a Corvex field, a later one overwrites.
#pragma once

#define OSTRA_MATCH_FIELDS(FIELD)                                                         \
  FIELD(ingressPort, P4Runtime::P4PortId, "ingress_port", IngressPort)                    \
  FIELD(egressPort, P4Runtime::P4PortId, "egress_port", EgressPort)                       \
  FIELD(ethSrc, Korm::EthAddr, "hdr.ethernet.src_addr", Plain<&Match::ethSrc>)            \
  FIELD(ethDst, Korm::EthAddr, "hdr.ethernet.dst_addr", Plain<&Match::ethDst>)            \
  FIELD(etherType, std::uint16_t, "hdr.ethernet.ether_type", Plain<&Match::etherType>)    \
  FIELD(vlanId, std::uint16_t, "local_metadata.vlan_id", VlanId)                          \
  FIELD(ip4Src, Korm::IpAddr, "hdr.ipv4_base.src_addr", Ip4<&Match::ipSrc>)               \
  FIELD(ip4Dst, Korm::IpAddr, "hdr.ipv4_base.dst_addr", Ip4<&Match::ipDst>)               \
  FIELD(ip4Dscp, std::uint8_t, "hdr.ipv4_base.dscp", Shifted<&Match::tos, dscpShift>)     \
  FIELD(ip4Protocol, std::uint8_t, "hdr.ipv4_base.protocol", Plain<&Match::ipProto>)      \
  FIELD(ip4Ttl, std::uint8_t, "hdr.ipv4_base.ttl", Plain<&Match::ttl>)                    \
  FIELD(ip6Src, Korm::IpAddr, "hdr.ipv6_base.src_addr", Ip6<&Match::ip6Src>)              \
  FIELD(ip6Dst, Korm::IpAddr, "hdr.ipv6_base.dst_addr", Ip6<&Match::ip6Dst>)              \
  FIELD(ip6Dscp, std::uint8_t, "hdr.ipv6_base.dscp", Shifted<&Match::tos, dscpShift>)     \
  FIELD(ip6NextHeader, std::uint8_t, "hdr.ipv6_base.next_header", Plain<&Match::ipProto>) \
  FIELD(ip6HopLimit, std::uint8_t, "hdr.ipv6_base.hop_limit", Plain<&Match::ttl>)         \
  FIELD(arpTarget, Korm::IpAddr, "hdr.arp.target_proto_addr", Ip4<&Match::arpTargetAddr>) \
  FIELD(icmpType, std::uint8_t, "hdr.icmp.type", Plain<&Match::icmpType>)                 \
  FIELD(dscp, std::uint8_t, "local_metadata.dscp", Shifted<&Match::tos, dscpShift>)       \
  FIELD(nextHeader, std::uint8_t, "local_metadata.next_header", Plain<&Match::ipProto>)   \
  FIELD(hopLimit, std::uint8_t, "local_metadata.hop_limit", Plain<&Match::ttl>)           \
  FIELD(l4SrcPort, std::uint16_t, "local_metadata.l4_src_port", Plain<&Match::l4SrcPort>) \
  FIELD(l4DstPort, std::uint16_t, "local_metadata.l4_dst_port", Plain<&Match::l4DstPort>) \
  FIELD(innerL3Data, std::uint8_t, "local_metadata.inner_l3_data", InnerL3Data)           \
  FIELD(isIpPacket, bool, "local_metadata.isIpPacket", IsIpPacket)
