#include "Ostra/MatchTranslation.h"

#include <tuple>

#include "Ostra/EtherType.h"
#include "Ostra/Trace.h"
#include "platform/Bridging/Bridging.h"
#include "platform/Brisklog/Addresses.h"

namespace Ostra {
namespace {

using OpenFlowTable::L3PacketType;
using OpenFlowTable::Masked;
using OpenFlowTable::Match;

constexpr std::string_view scope = "OstraSm::";
constexpr std::string_view function = "handleFlowConfigImpl";
constexpr int level = TraceLevel::routine;

constinit Brisklog::TracePoint traceIp{traceHandle, level, scope, function, " matchIp:%s"};
constinit Brisklog::TracePoint traceIp6{traceHandle, level, scope, function, " matchIp6:%s"};
constinit Brisklog::TracePoint traceIsIpPacket{traceHandle, level, scope, function,
                                               " isIpPacketValid %s. isIpPacketMask %s"};
constinit Brisklog::TracePoint traceInnerL3Data{traceHandle, level, scope, function,
                                                " innerL3Data:%s"};
constinit Brisklog::TracePoint traceRewrite{traceHandle, level, scope, function,
                                            "maybeUpdateFlowMatch tableType %s prioGroupType%s"};
constinit Brisklog::TracePoint traceReplace{traceHandle, level, scope, function,
                                            "replace ethertype %s with l3PacketType %s"};

// A DSCP stands in the upper six bits of the type-of-service byte (RFC 2474, 3).
constexpr unsigned dscpShift = 2;
// The inner layer-3 byte's place in the inner data.
constexpr unsigned innerL3Shift = 16;

// The Match::Field of a member of Match.
template <auto member>
consteval Match::Field fieldOf() {
  return std::apply(
      [](const auto&... info) {
        Match::Field field{};
        const auto consider = [&field](const auto& candidate) {
          if constexpr (std::is_same_v<decltype(candidate.member), decltype(member)>) {
            if (candidate.member == member) {
              field = candidate.field;
            }
          }
        };
        (consider(info), ...);
        return field;
      },
      OpenFlowTable::matchFields);
}

template <auto member, class T>
void put(Match& match, const T& value, const T& mask) {
  match.*member = {value, mask};
  match.hasIs(fieldOf<member>(), true);
}

// The rules: how a constrained field becomes part of the Corvex match.

template <auto member>
struct Plain {
  template <class T>
  static void apply(Match& match, const MatchField<T>& field) {
    put<member>(match, field.value, field.mask);
  }
};

template <auto member, unsigned shift>
struct Shifted {
  static void apply(Match& match, const MatchField<std::uint8_t>& field) {
    put<member>(match, static_cast<std::uint8_t>(field.value << shift),
                static_cast<std::uint8_t>(field.mask << shift));
  }
};

template <auto member>
struct Ip4 {
  static void apply(Match& match, const MatchField<Korm::IpAddr>& field) {
    const Korm::Ip4Addr address = field.value.ip4();
    traceIp(address);
    put<member>(match, address, field.mask.ip4());
  }
};

template <auto member>
struct Ip6 {
  static void apply(Match& match, const MatchField<Korm::IpAddr>& field) {
    const Korm::Ip6Addr address = field.value.ip6();
    traceIp6(address);
    put<member>(match, address, field.mask.ip6());
  }
};

struct VlanId {
  static void apply(Match& match, const MatchField<std::uint16_t>& field) {
    const Bridging::VlanIdOrNone value{field.value};
    const Bridging::VlanIdOrAnyOrNone mask{field.mask};
    put<&Match::vlanId>(match, value.value(), mask.value());
  }
};

struct InnerL3Data {
  static void apply(Match& match, const MatchField<std::uint8_t>& field) {
    traceInnerL3Data(field.value);
    const Masked<std::uint32_t>& present = match.innerData;
    put<&Match::innerData>(match, present.value | std::uint32_t{field.value} << innerL3Shift,
                           present.mask | std::uint32_t{field.mask} << innerL3Shift);
  }
};

struct IsIpPacket {
  static void apply(Match& match, const MatchField<bool>& field) {
    traceIsIpPacket(field.given, field.mask);
    match.l3PacketType = field.value ? L3PacketType::ip_ : L3PacketType::nonIp_;
    match.hasIs(Match::Field::l3PacketType_, true);
  }
};

// Ports are validated and mapped by the state machine.
struct Port {
  static void apply(Match& /*match*/, const MatchField<P4Runtime::P4PortId>& /*field*/) {}
};
using IngressPort = Port;
using EgressPort = Port;

}  // namespace

void copyMatchFields(const OstraKey& key, Match& match) {
#define OSTRA_FIELD_COPY(member, Type, name, ...)                           \
  if (key.given(MatchFieldId::member##_)) {                                 \
    if (const MatchField<Type> field = key.member(); field.constrained()) { \
      __VA_ARGS__::apply(match, field);                                     \
    }                                                                       \
  }
  OSTRA_MATCH_FIELDS(OSTRA_FIELD_COPY)
#undef OSTRA_FIELD_COPY
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
  match.l3PacketType = etherType == EtherType::ipv4 ? L3PacketType::ipv4_ : L3PacketType::ipv6_;
  match.hasIs(Match::Field::l3PacketType_, true);
  traceReplace(etherType, match.l3PacketType);
  match.etherType = {0, EtherType::exactMask};
  match.hasIs(Match::Field::etherType_, false);
}

}  // namespace Ostra
