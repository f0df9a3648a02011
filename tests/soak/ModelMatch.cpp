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

// The value of an address, or of a number.
template <class T>
T valueOf(const Bits& bits, unsigned shift) {
  if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(bits.low << shift);
  } else {
    T address{};
    const std::size_t count = address.octets.size();
    for (std::size_t at = 0; at < count; ++at) {
      const std::size_t fromEnd = count - 1 - at;
      address.octets[at] =
          static_cast<std::uint8_t>((fromEnd < 8 ? bits.low : bits.high) >> (fromEnd % 8 * 8));
    }
    return address;
  }
}
template <class T>
void put(Match& match, void (Match::*set)(const T&, const T&) noexcept, const MatchField& field,
         unsigned shift = 0) {
  (match.*set)(valueOf<T>(field.value, shift), valueOf<T>(field.mask, shift));
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
  switch (field.field) {
    case ethSrc_:
      return put(match, &Match::ethSrcIs, field);
    case ethDst_:
      return put(match, &Match::ethDstIs, field);
    case etherType_:
      return put(match, &Match::etherTypeIs, field);
    case vlanId_:
      return put(match, &Match::vlanIdIs, field);
    case ip4Src_:
      return put(match, &Match::ipSrcIs, field);
    case ip4Dst_:
      return put(match, &Match::ipDstIs, field);
    case arpTarget_:
      return put(match, &Match::arpTargetAddrIs, field);
    case ip6Src_:
      return put(match, &Match::ip6SrcIs, field);
    case ip6Dst_:
      return put(match, &Match::ip6DstIs, field);
    case ip4Dscp_:
    case ip6Dscp_:
    case dscp_:
      return put(match, &Match::tosIs, field, 2);
    case ip4Protocol_:
    case ip6NextHeader_:
    case nextHeader_:
      return put(match, &Match::ipProtoIs, field);
    case ip4Ttl_:
    case ip6HopLimit_:
    case hopLimit_:
      return put(match, &Match::ttlIs, field);
    case icmpType_:
      return put(match, &Match::icmpTypeIs, field);
    case l4SrcPort_:
      return put(match, &Match::l4SrcPortIs, field);
    case l4DstPort_:
      return put(match, &Match::l4DstPortIs, field);
    case innerL3Data_:
      return put(match, &Match::innerDataIs, field, 16);
    case isIpPacket_:
      return match.l3PacketTypeIs(field.value.low != 0 ? OpenFlowTable::L3PacketType::ip_
                                                       : OpenFlowTable::L3PacketType::nonIp_,
                                  true);
    default:
      break;  // a port, which is placed before
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
    const auto id = static_cast<std::uint32_t>(given->value.low);
    checkPort(handle, id, what);
    (match.*put)(interfaceOf(id), true);
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
