// The commands of a history, the keys of flows, and how ostra-sim spells both.
//
// Thread and process rule: plain values.
#pragma once

#include "platform/OpenFlowTable/Actions.h"
#include "platform/OpenFlowTable/Match.h"
#include "tests/Testing.h"

namespace Soak {

using Lines = std::vector<std::string>;
using Handle = std::uint64_t;

using Op = std::string_view;
inline constexpr Op insert_ = "insert", modify_ = "modify", delete_ = "delete";

// The match fields, numbered in the order of the key. The first give the type of a packet. Those
// from firstNeedy on require a type, and are checked in this order.
enum Field : std::uint8_t { etherType_, isIpPacket_, ingressPort_, egressPort_, vlanId_ };
inline constexpr std::uint8_t firstNeedy = 16, fieldCount = 25;

struct Bits {
  std::uint64_t low = 0;
  std::uint64_t high = 0;  // of an IPv6 address; otherwise 0
  friend auto operator<=>(const Bits&, const Bits&) = default;
};
// The value as an address, or as a number that is shifted to the left.
template <class T>
T valueOf(const Bits& bits, unsigned shift = 0) {
  if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(bits.low << shift);
  } else {
    T address{};
    for (std::size_t at = 0; at < address.octets.size(); ++at) {
      const std::size_t fromEnd = address.octets.size() - 1 - at;
      address.octets[at] =
          static_cast<std::uint8_t>((fromEnd < 8 ? bits.low : bits.high) >> (fromEnd % 8 * 8));
    }
    return address;
  }
}

struct MatchField {
  Field field{};
  Bits value;
  Bits mask;
  friend auto operator<=>(const MatchField&, const MatchField&) = default;
};

// The packet types that a field may require.
enum Type : std::uint8_t { ip4_ = 1, ip6_ = 2, arp_ = 4, ipPacket_ = 8 };
// Those of an Ethernet type.
[[nodiscard]] unsigned typesOf(std::uint64_t etherType);

struct FieldInfo {
  std::string_view name;
  unsigned bits;
  std::string (*text)(const Bits& bits);
  unsigned needs;  // one of these types; 0: none
  // Writes it to the match in Corvex. Null for ports, which need the table of ports.
  void (*place)(OpenFlowTable::Match& match, const MatchField& field);
};
[[nodiscard]] const FieldInfo& info(Field field);

struct FlowKey {
  std::uint8_t table = 0;
  std::int32_t tableType = 0;
  std::uint32_t priorityGroup = 0;
  std::int32_t priority = 0;
  std::vector<MatchField> fields;  // by number, each at most once
  friend auto operator<=>(const FlowKey&, const FlowKey&) = default;
};

struct FlowActions {
  std::string text;  // of all that follow
  std::optional<std::uint32_t> output, vrf, group, member;
  std::optional<std::uint16_t> vlan;
  std::optional<std::uint8_t> trafficClass, cpuTrafficClass, setDscp;
  std::optional<std::uint64_t> setEthSrc, setEthDst;
  std::optional<Interface::IntfId> mirrorIngress, mirrorEgress;
  std::optional<OpenFlowTable::PolicerConfig> policer;
  bool drop = false, copyToCpu = false, decTtl = false;
};

struct Model;

// A line of ostra-sim, and what it does to the model.
struct Step {
  std::string line;  // with '#' for a handle
  std::function<void(Model&)> play;
  Handle about = 0;  // the handle of the row, in the first play of the history
  Handle given = 0;  // the handle of the row that it inserted, in that play
};
// A command, or a batch of writes.
struct Command {
  std::vector<Step> steps{};
  bool isBatch = false;
  bool isBracketed = false;  // by "begin" and "commit"
};
using History = std::vector<Command>;

// The words with a space between.
std::string words(const auto& first, const auto&... more) {
  std::ostringstream text;
  text << first;
  ((text << ' ' << more), ...);
  return text.str();
}
[[nodiscard]] std::string macText(const Bits& address);
[[nodiscard]] std::string ip4Text(const Bits& address);
[[nodiscard]] std::string keyText(const FlowKey& key);

}  // namespace Soak
