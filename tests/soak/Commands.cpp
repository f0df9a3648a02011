#include "tests/soak/Commands.h"

#include <iomanip>

namespace Soak {
namespace {

using OpenFlowTable::Match;

// Groups of `width` bits, from the highest on.
std::string groupsText(const Bits& bits, unsigned count, unsigned width, char separator) {
  const bool decimal = separator == '.';
  std::ostringstream text;
  text << std::setfill('0') << (decimal ? std::dec : std::hex);
  for (unsigned at = count * width; at > 0;) {
    at -= width;
    text << std::setw(decimal ? 0 : static_cast<int>(width / 4))
         << ((at < 64 ? bits.low : bits.high) >> at % 64 & ((1U << width) - 1)) << separator;
  }
  std::string all = text.str();
  all.pop_back();
  return all;
}
std::string ip6Text(const Bits& bits) { return groupsText(bits, 8, 16, ':'); }
std::string numberText(const Bits& bits) { return std::to_string(bits.low); }
std::string flagText(const Bits& bits) { return bits.low != 0 ? "true" : "false"; }

template <auto set, unsigned shift = 0>
void place(Match& match, const MatchField& field) {
  [&]<class T>(void (Match::*)(const T&, const T&) noexcept) {
    (match.*set)(valueOf<T>(field.value, shift), valueOf<T>(field.mask, shift));
  }(set);
}
void placeIpFlag(Match& match, const MatchField& field) {
  using OpenFlowTable::L3PacketType;
  match.l3PacketTypeIs(field.value.low != 0 ? L3PacketType::ip_ : L3PacketType::nonIp_, true);
}

constexpr std::array<FieldInfo, fieldCount> fields{{
    {"hdr.ethernet.ether_type", 16, numberText, 0, place<&Match::etherTypeIs>},
    {"local_metadata.isIpPacket", 1, flagText, 0, placeIpFlag},
    {"ingress_port", 32, numberText, 0, nullptr},
    {"egress_port", 32, numberText, 0, nullptr},
    {"local_metadata.vlan_id", 16, numberText, 0, place<&Match::vlanIdIs>},
    {"hdr.ethernet.src_addr", 48, macText, 0, place<&Match::ethSrcIs>},
    {"hdr.ethernet.dst_addr", 48, macText, 0, place<&Match::ethDstIs>},
    {"hdr.ipv4_base.dscp", 6, numberText, 0, place<&Match::tosIs, 2>},
    {"hdr.ipv4_base.protocol", 8, numberText, 0, place<&Match::ipProtoIs>},
    {"hdr.ipv4_base.ttl", 8, numberText, 0, place<&Match::ttlIs>},
    {"hdr.ipv6_base.dscp", 6, numberText, 0, place<&Match::tosIs, 2>},
    {"hdr.ipv6_base.next_header", 8, numberText, 0, place<&Match::ipProtoIs>},
    {"hdr.ipv6_base.hop_limit", 8, numberText, 0, place<&Match::ttlIs>},
    {"local_metadata.l4_src_port", 16, numberText, 0, place<&Match::l4SrcPortIs>},
    {"local_metadata.l4_dst_port", 16, numberText, 0, place<&Match::l4DstPortIs>},
    {"local_metadata.inner_l3_data", 8, numberText, 0, place<&Match::innerDataIs, 16>},
    {"hdr.ipv6_base.dst_addr", 128, ip6Text, ip6_, place<&Match::ip6DstIs>},
    {"hdr.ipv6_base.src_addr", 128, ip6Text, ip6_, place<&Match::ip6SrcIs>},
    {"hdr.ipv4_base.dst_addr", 32, ip4Text, ip4_, place<&Match::ipDstIs>},
    {"hdr.ipv4_base.src_addr", 32, ip4Text, ip4_, place<&Match::ipSrcIs>},
    {"hdr.arp.target_proto_addr", 32, ip4Text, arp_, place<&Match::arpTargetAddrIs>},
    {"hdr.icmp.type", 8, numberText, ip4_ | ip6_, place<&Match::icmpTypeIs>},
    {"local_metadata.dscp", 6, numberText, ipPacket_, place<&Match::tosIs, 2>},
    {"local_metadata.hop_limit", 8, numberText, ipPacket_, place<&Match::ttlIs>},
    {"local_metadata.next_header", 8, numberText, ipPacket_, place<&Match::ipProtoIs>},
}};

}  // namespace

const FieldInfo& info(Field field) { return fields.at(field); }

unsigned typesOf(std::uint64_t etherType) {
  return etherType == 0x0800   ? ip4_ | ipPacket_
         : etherType == 0x86DD ? ip6_ | ipPacket_
         : etherType == 0x0806 ? arp_
                               : 0;
}

std::string macText(const Bits& address) { return groupsText(address, 6, 8, ':'); }
std::string ip4Text(const Bits& address) { return groupsText(address, 4, 8, '.'); }

std::string keyText(const FlowKey& key) {
  std::string text = " table=" + std::to_string(key.table) +
                     " priority=" + std::to_string(key.priority) +
                     " table-type=" + std::to_string(key.tableType) +
                     " priority-group=" + std::to_string(key.priorityGroup);
  for (const MatchField& match : key.fields) {
    const FieldInfo& field = info(match.field);
    text.append(" ").append(field.name).append("=") += field.text(match.value);
    const std::uint64_t ones = field.bits >= 64 ? ~0ULL : (1ULL << field.bits) - 1;
    if (match.mask.low != ones || match.field == vlanId_ || field.bits == 128) {
      text += "&" + field.text(match.mask);
    }
  }
  return text;
}

}  // namespace Soak
