// What a flow matches.
#pragma once

#include <cstdint>
#include <tuple>

#include "platform/Interface/Interface.h"
#include "platform/Korm/Address.h"
#include "platform/OpenFlowTable/Types.h"

namespace OpenFlowTable {

// A value and the bits of it that count.
template <class T>
struct Masked {
  T value{};
  T mask{};
  friend bool operator==(const Masked&, const Masked&) noexcept = default;
};

// The fields of a match, each of which may be set or left unset (a wildcard). The names are those of
// matchFields below.
struct Match {
  Masked<Korm::Ip6Addr> ip6Src;
  Masked<Korm::Ip6Addr> ip6Dst;
  Masked<Korm::Ip4Addr> ipSrc;
  Masked<Korm::Ip4Addr> ipDst;
  Masked<Korm::Ip4Addr> arpTargetAddr;
  Masked<Korm::EthAddr> ethSrc;
  Masked<Korm::EthAddr> ethDst;
  Masked<std::uint32_t> innerData;  // inner layer-3 data; bits 16 to 23 hold its first byte
  Masked<std::uint16_t> etherType;
  Masked<std::uint16_t> vlanId;
  Masked<std::uint16_t> l4SrcPort;
  Masked<std::uint16_t> l4DstPort;
  Masked<std::uint8_t> tos;  // DSCP in the upper six bits
  Masked<std::uint8_t> ipProto;
  Masked<std::uint8_t> ttl;
  Masked<std::uint8_t> icmpType;
  L3PacketType l3PacketType{};
  Interface::IntfId inIntf;
  Interface::IntfId egressIntf;

  enum class Field : std::uint8_t {
    inIntf_,
    egressIntf_,
    ethSrc_,
    ethDst_,
    etherType_,
    vlanId_,
    ipSrc_,
    ipDst_,
    arpTargetAddr_,
    ip6Src_,
    ip6Dst_,
    tos_,
    ipProto_,
    ttl_,
    icmpType_,
    l4SrcPort_,
    l4DstPort_,
    innerData_,
    l3PacketType_,
  };

  [[nodiscard]] bool has(Field field) const noexcept {
    return (present >> static_cast<unsigned>(field) & 1U) != 0;
  }
  void hasIs(Field field, bool set) noexcept {
    const std::uint32_t bit = 1U << static_cast<unsigned>(field);
    present = set ? present | bit : present & ~bit;
  }

  void inIntfIs(const Interface::IntfId& intf, bool set) noexcept {
    inIntf = intf;
    hasIs(Field::inIntf_, set);
  }
  void egressIntfIs(const Interface::IntfId& intf, bool set) noexcept {
    egressIntf = intf;
    hasIs(Field::egressIntf_, set);
  }

  friend bool operator==(const Match&, const Match&) noexcept = default;

  std::uint32_t present = 0;  // a bit per Field
};

// A field of a match, its name and where it stands, for those who print or compare matches.
template <class T>
struct MatchFieldInfo {
  const char* name;
  Match::Field field;
  T Match::*member;
};
template <class T>
MatchFieldInfo(const char*, Match::Field, T Match::*) -> MatchFieldInfo<T>;

inline constexpr std::tuple matchFields{
    MatchFieldInfo{"inIntf", Match::Field::inIntf_, &Match::inIntf},
    MatchFieldInfo{"egressIntf", Match::Field::egressIntf_, &Match::egressIntf},
    MatchFieldInfo{"l3PacketType", Match::Field::l3PacketType_, &Match::l3PacketType},
    MatchFieldInfo{"ethSrc", Match::Field::ethSrc_, &Match::ethSrc},
    MatchFieldInfo{"ethDst", Match::Field::ethDst_, &Match::ethDst},
    MatchFieldInfo{"etherType", Match::Field::etherType_, &Match::etherType},
    MatchFieldInfo{"vlanId", Match::Field::vlanId_, &Match::vlanId},
    MatchFieldInfo{"ipSrc", Match::Field::ipSrc_, &Match::ipSrc},
    MatchFieldInfo{"ipDst", Match::Field::ipDst_, &Match::ipDst},
    MatchFieldInfo{"arpTargetAddr", Match::Field::arpTargetAddr_, &Match::arpTargetAddr},
    MatchFieldInfo{"ip6Src", Match::Field::ip6Src_, &Match::ip6Src},
    MatchFieldInfo{"ip6Dst", Match::Field::ip6Dst_, &Match::ip6Dst},
    MatchFieldInfo{"tos", Match::Field::tos_, &Match::tos},
    MatchFieldInfo{"ipProto", Match::Field::ipProto_, &Match::ipProto},
    MatchFieldInfo{"ttl", Match::Field::ttl_, &Match::ttl},
    MatchFieldInfo{"icmpType", Match::Field::icmpType_, &Match::icmpType},
    MatchFieldInfo{"l4SrcPort", Match::Field::l4SrcPort_, &Match::l4SrcPort},
    MatchFieldInfo{"l4DstPort", Match::Field::l4DstPort_, &Match::l4DstPort},
    MatchFieldInfo{"innerData", Match::Field::innerData_, &Match::innerData},
};

}  // namespace OpenFlowTable
