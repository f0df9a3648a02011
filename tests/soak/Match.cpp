// The match of a flow: what is wrong with it, and what becomes of it in Corvex.
#include "tests/soak/Library.h"

namespace Soak {
namespace {

using OpenFlowTable::Match;

// The field if it is given with a mask that is not zero; otherwise null.
const MatchField* constrained(const FlowKey& key, Field field) {
  for (const MatchField& match : key.fields) {
    if (match.field == field && match.mask != Bits{}) {
      return &match;
    }
  }
  return nullptr;
}

void checkKey(const FlowKey& key, auto refuse) {
  const std::string typeName{info(etherType_).name};
  const MatchField* const type = constrained(key, etherType_);
  const MatchField* const flag = constrained(key, isIpPacket_);
  const bool flagged = flag != nullptr && flag->value.low != 0;
  unsigned types = 0;
  if (type != nullptr) {
    if (type->mask.low != 0xFFFF) {
      refuse(17, typeName + " should be a wildcard or an exact value");
    }
    types = typesOf(type->value.low);
    if (flag != nullptr && ((types & ipPacket_) != 0) != flagged) {
      refuse(13, "the combination of " + typeName +
                     " and local.metadata.isIpPacket has no defined behavior");
    }
  }
  types |= flagged ? unsigned{ipPacket_} : 0;
  for (const MatchField& field : key.fields) {
    const auto& [name, bits, text, needs, place] = info(field.field);
    if (needs == 0 || (needs & types) != 0 || field.mask == Bits{}) {
      continue;
    }
    if (needs != ipPacket_) {
      refuse(13, "the combination of " + typeName + " and " + std::string{name} +
                     " has no defined behavior");
    }
    refuse(14, std::string{name} + " is not allowed because ether type is " +
                   (type == nullptr ? "ignored" : "non-ip") + " and isIpPacket is " +
                   (flag == nullptr ? "ignored" : "false"));
  }
}

}  // namespace

Match Library::buildMatch(const FlowKey& key, Handle handle) const {
  const auto refuse = [handle](unsigned code, const std::string& message) {
    throw Report{handle, code, message};
  };
  Match match;
  const auto port = [&](Field field, const std::string& what, auto put) {
    const MatchField* const given = constrained(key, field);
    if (given == nullptr) {
      return;
    }
    if (given->mask.low != 0xFFFFFFFF) {
      refuse(15, what + ": mask " + std::to_string(given->mask.low) +
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
    const auto place = info(field.field).place;
    if (field.mask == Bits{} || place == nullptr) {
      continue;
    }
    if (field.field == vlanId_) {
      inRange(field.value.low <= 4094, "VlanIdOrNone::value > 4094 not allowed");
      inRange(field.mask.low <= 4095, "VlanIdOrAnyOrNone::value > 4095 not allowed");
    }
    place(match, field);
  }
  if (const unsigned types = typesOf(match.etherType.value);
      key.tableType == 1 && match.has(Match::Field::etherType_) && (types & ipPacket_) != 0) {
    using OpenFlowTable::L3PacketType;
    match.l3PacketTypeIs((types & ip4_) != 0 ? L3PacketType::ipv4_ : L3PacketType::ipv6_, true);
    match.etherTypeIs(0, 0xFFFF);
    match.hasIs(Match::Field::etherType_, false);
  }
  return match;
}

}  // namespace Soak
