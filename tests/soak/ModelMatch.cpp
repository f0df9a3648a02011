// The match of a flow: what is wrong with it, and what becomes of it in Corvex.
#include <algorithm>

#include "tests/soak/Model.h"

namespace Soak {

const MatchField* constrained(const FlowKey& key, Field field) {
  for (const MatchField& match : key.fields) {
    if (match.field == field && match.mask != Bits{}) {
      return &match;
    }
  }
  return nullptr;
}

namespace {

using OpenFlowTable::Match;

constexpr unsigned undefinedBehavior = 13;
constexpr unsigned notAllowed = 14;
constexpr unsigned invalidArgument = 15;
constexpr unsigned invalidMask = 17;
constexpr std::uint16_t ip4Type = 0x0800;
constexpr std::uint16_t ip6Type = 0x86DD;
constexpr std::uint16_t arpType = 0x0806;

template <class T>
T number(const Bits& bits) {
  return static_cast<T>(bits.low);
}
template <std::size_t count>
std::array<std::uint8_t, count> octets(const Bits& bits) {
  std::array<std::uint8_t, count> out{};
  for (std::size_t at = 0; at < count; ++at) {
    const std::size_t fromEnd = count - 1 - at;
    out[at] = static_cast<std::uint8_t>((fromEnd < 8 ? bits.low : bits.high) >> (fromEnd % 8 * 8));
  }
  return out;
}
void place(Match& match, Match::Field bit, auto& masked, const auto& value, const auto& mask) {
  masked = {value, mask};
  match.hasIs(bit, true);
}
template <class T>
void placeNumber(Match& match, Match::Field bit, OpenFlowTable::Masked<T>& masked,
                 const MatchField& field, unsigned shift = 0) {
  place(match, bit, masked, static_cast<T>(field.value.low << shift),
        static_cast<T>(field.mask.low << shift));
}

struct Layer3 {
  std::optional<std::uint16_t> etherType;  // exact
  bool isIp = false;
  std::string whyNot;
};

Layer3 checkLayer3(const FlowKey& key, auto refuse) {
  const std::string typeName = "hdr.ethernet.ether_type";
  Layer3 layer3;
  const MatchField* const type = constrained(key, etherType_);
  const MatchField* const flag = constrained(key, isIpPacket_);
  if (type != nullptr) {
    if (type->mask.low != 0xFFFF) {
      refuse(invalidMask, typeName + " should be a wildcard or an exact value");
    }
    layer3.etherType = static_cast<std::uint16_t>(type->value.low);
  }
  const bool ipType = layer3.etherType == ip4Type || layer3.etherType == ip6Type;
  if (type != nullptr && flag != nullptr && ipType != (flag->value.low != 0)) {
    refuse(undefinedBehavior, "the combination of " + typeName +
                                  " and local.metadata.isIpPacket has no defined behavior");
  }
  layer3.isIp = ipType || (flag != nullptr && flag->value.low != 0);
  layer3.whyNot = std::string{type == nullptr ? "ether type is ignored and isIpPacket is "
                                              : "ether type is non-ip and isIpPacket is "} +
                  (flag == nullptr ? "ignored" : "false");
  return layer3;
}

void checkKey(const FlowKey& key, auto refuse) {
  const Layer3 layer3 = checkLayer3(key, refuse);
  const auto needsType = [&](Field field, std::initializer_list<std::uint16_t> types) {
    if (constrained(key, field) != nullptr &&
        std::none_of(types.begin(), types.end(),
                     [&](std::uint16_t type) { return layer3.etherType == type; })) {
      refuse(undefinedBehavior, "the combination of hdr.ethernet.ether_type and " +
                                    std::string{info(field).name} + " has no defined behavior");
    }
  };
  needsType(ip6Dst_, {ip6Type});
  needsType(ip6Src_, {ip6Type});
  needsType(ip4Dst_, {ip4Type});
  needsType(ip4Src_, {ip4Type});
  needsType(arpTarget_, {arpType});
  needsType(icmpType_, {ip4Type, ip6Type});
  for (const Field field : {dscp_, hopLimit_, nextHeader_}) {
    if (constrained(key, field) != nullptr && !layer3.isIp) {
      refuse(notAllowed,
             std::string{info(field).name} + " is not allowed because " + layer3.whyNot);
    }
  }
}

void placeField(Match& match, const MatchField& field) {
  using F = Match::Field;
  const auto plain = [&](F bit, auto& masked) { placeNumber(match, bit, masked, field); };
  const auto address = [&](F bit, auto& masked) {
    using Address = std::remove_cvref_t<decltype(masked.value)>;
    constexpr std::size_t size = sizeof(Address::octets);
    place(match, bit, masked, Address{octets<size>(field.value)},
          Address{octets<size>(field.mask)});
  };
  switch (field.field) {
    case ethSrc_:
      return address(F::ethSrc_, match.ethSrc);
    case ethDst_:
      return address(F::ethDst_, match.ethDst);
    case etherType_:
      return plain(F::etherType_, match.etherType);
    case vlanId_:
      return plain(F::vlanId_, match.vlanId);
    case ip4Src_:
      return address(F::ipSrc_, match.ipSrc);
    case ip4Dst_:
      return address(F::ipDst_, match.ipDst);
    case arpTarget_:
      return address(F::arpTargetAddr_, match.arpTargetAddr);
    case ip6Src_:
      return address(F::ip6Src_, match.ip6Src);
    case ip6Dst_:
      return address(F::ip6Dst_, match.ip6Dst);
    case ip4Dscp_:
    case ip6Dscp_:
    case dscp_:
      return placeNumber(match, F::tos_, match.tos, field, 2);
    case ip4Protocol_:
    case ip6NextHeader_:
    case nextHeader_:
      return plain(F::ipProto_, match.ipProto);
    case ip4Ttl_:
    case ip6HopLimit_:
    case hopLimit_:
      return plain(F::ttl_, match.ttl);
    case icmpType_:
      return plain(F::icmpType_, match.icmpType);
    case l4SrcPort_:
      return plain(F::l4SrcPort_, match.l4SrcPort);
    case l4DstPort_:
      return plain(F::l4DstPort_, match.l4DstPort);
    case innerL3Data_:
      return placeNumber(match, F::innerData_, match.innerData, field, 16);
    case isIpPacket_:
      match.l3PacketType = field.value.low != 0 ? OpenFlowTable::L3PacketType::ip_
                                                : OpenFlowTable::L3PacketType::nonIp_;
      return match.hasIs(F::l3PacketType_, true);
    case ingressPort_:
    case egressPort_:
    case fieldCount_:
      break;
  }
}

}  // namespace

void Model::checkPort(Handle handle, std::uint32_t port, const std::string& what) {
  if (port == 0 || port > 0xFFFFFEFF) {
    throw EntryError{handle, invalidArgument,
                     what + ": port id " + std::to_string(port) + " is outside 1 to 4294967039"};
  }
}

Match Model::buildMatch(const FlowKey& key, Handle handle) const {
  const auto refuse = [handle](unsigned code, const std::string& message) {
    throw EntryError{handle, code, message};
  };
  Match match;
  const auto port = [&](Field field, const std::string& what, auto put) {
    const MatchField* const given = constrained(key, field);
    if (given == nullptr) {
      return;
    }
    if (given->mask.low != 0xFFFFFFFF) {
      refuse(invalidArgument, what + ": mask " + std::to_string(given->mask.low) +
                                  " is not all ones; a port is matched exactly");
    }
    checkPort(handle, number<std::uint32_t>(given->value), what);
    (match.*put)(interfaceOf(number<std::uint32_t>(given->value)), true);
  };
  port(ingressPort_, "ingress port-id", &Match::inIntfIs);
  port(egressPort_, "egress port-id", &Match::egressIntfIs);
  checkKey(key, refuse);
  for (const MatchField& field : key.fields) {
    if (field.mask == Bits{}) {
      continue;
    }
    if (field.field == vlanId_ && field.value.low > 4094) {
      throw RangeError{"VlanIdOrNone::value > 4094 not allowed"};
    }
    if (field.field == vlanId_ && field.mask.low > 4095) {
      throw RangeError{"VlanIdOrAnyOrNone::value > 4095 not allowed"};
    }
    placeField(match, field);
  }
  return match;
}

}  // namespace Soak
