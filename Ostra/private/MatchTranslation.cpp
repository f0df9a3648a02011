#include "Ostra/private/MatchTranslation.h"

#include <tuple>

#include "Ostra/EtherType.h"
#include "Ostra/Trace.h"
#include "Ostra/private/StepTrace.h"
#include "platform/Bridging/Bridging.h"
#include "platform/Brisklog/Addresses.h"

namespace Ostra {
namespace {

using OpenFlowTable::L3PacketType;
using OpenFlowTable::Masked;
using OpenFlowTable::Match;

constexpr std::string_view scope = "OstraSm::";
constexpr std::string_view function = "handleFlowConfigImpl";
constexpr const char* unit = "Ostra/OstraSm";  // the trace shows one unit for all its files
constexpr int level = TraceLevel::routine;

constinit StepTrace traceIp{traceHandle, level, scope, function, " matchIp:%s", unit};
constinit StepTrace traceIp6{traceHandle, level, scope, function, " matchIp6:%s", unit};
constinit StepTrace traceIsIpPacket{
    traceHandle, level, scope, function, " isIpPacketValid %s. isIpPacketMask %s", unit};
constinit StepTrace traceInnerL3Data{traceHandle, level, scope, function, " innerL3Data:%s", unit};
constinit StepTrace traceRewrite{
    traceHandle, level, scope, function, "maybeUpdateFlowMatch tableType %s prioGroupType%s", unit};
constinit StepTrace traceReplace{
    traceHandle, level, scope, function, "replace ethertype %s with l3PacketType %s", unit};

// The DSCP is the upper six bits of the type-of-service byte (RFC 2474, 3).
constexpr unsigned dscpShift = 2;
// The position of the inner layer-3 byte in the inner data.
constexpr unsigned innerL3Shift = 16;

// The rules: how a constrained field becomes part of the Corvex match.

template <auto setter>
struct To {
  template <class T>
  static void apply(Match& match, const MatchField<T>& field) {
    (match.*setter)(field.value, field.mask);
  }
};

struct Dscp {
  static void apply(Match& match, const MatchField<std::uint8_t>& field) {
    match.tosIs(static_cast<std::uint8_t>(field.value << dscpShift),
                static_cast<std::uint8_t>(field.mask << dscpShift));
  }
};

template <auto setter>
struct Ip4 {
  static void apply(Match& match, const MatchField<Korm::IpAddr>& field) {
    const Korm::Ip4Addr address = field.value.ip4();
    traceIp(address);
    (match.*setter)(address, field.mask.ip4());
  }
};

template <auto setter>
struct Ip6 {
  static void apply(Match& match, const MatchField<Korm::IpAddr>& field) {
    const Korm::Ip6Addr address = field.value.ip6();
    traceIp6(address);
    (match.*setter)(address, field.mask.ip6());
  }
};

struct Vlan {
  static void apply(Match& match, const MatchField<std::uint16_t>& field) {
    const Bridging::VlanIdOrNone value{field.value};
    const Bridging::VlanIdOrAnyOrNone mask{field.mask};
    match.vlanIdIs(value.value(), mask.value());
  }
};

struct InnerL3Data {
  static void apply(Match& match, const MatchField<std::uint8_t>& field) {
    traceInnerL3Data(field.value);
    const Masked<std::uint32_t>& present = match.innerData;
    match.innerDataIs(present.value | std::uint32_t{field.value} << innerL3Shift,
                      present.mask | std::uint32_t{field.mask} << innerL3Shift);
  }
};

struct IsIpPacket {
  static void apply(Match& match, const MatchField<bool>& field) {
    traceIsIpPacket(field.given, field.mask);
    match.l3PacketTypeIs(field.value ? L3PacketType::ip_ : L3PacketType::nonIp_, true);
  }
};

// Ports are validated and mapped by the state machine.
struct Port {
  static void apply(Match& /*match*/, const MatchField<P4Runtime::P4PortId>& /*field*/) {}
};

// The rules by MatchFieldId. `void` follows the last comma.
#define OSTRA_FIELD_RULE(member, Type, name, width, needs, ...) __VA_ARGS__,
using Rules = std::tuple<OSTRA_MATCH_FIELDS(OSTRA_FIELD_RULE) void>;
#undef OSTRA_FIELD_RULE

}  // namespace

void copyMatchFields(const OstraKey& key, Match& match) {
  key.forEachGiven([&match](auto id, const auto& field) {
    if (field.constrained()) {
      std::tuple_element_t<static_cast<std::size_t>(id.value), Rules>::apply(match, field);
    }
  });
}

void maybeUpdateFlowMatch(OpenFlowTable::TableType tableType,
                          OpenFlowTable::PriorityGroupType priorityGroupType, Match& match) {
  if (tableType != OpenFlowTable::TableType::l3_) {
    return;
  }
  traceRewrite(static_cast<std::int32_t>(tableType), priorityGroupType);
  const std::uint16_t etherType = match.etherType.value;
  if (!match.has(Match::Field::etherType_) || match.etherType.mask != EtherType::exactMask ||
      !EtherType::isIp(etherType)) {
    return;
  }
  match.l3PacketTypeIs(etherType == EtherType::ipv4 ? L3PacketType::ipv4_ : L3PacketType::ipv6_,
                       true);
  traceReplace(etherType, match.l3PacketType);
  match.etherType = {0, EtherType::exactMask};
  match.hasIs(Match::Field::etherType_, false);
}

}  // namespace Ostra
