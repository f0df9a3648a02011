// The commands of a history, and how ostra-sim spells keys and actions.
//
// Thread and process rule: plain values.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Soak {

using Lines = std::vector<std::string>;
using Handle = std::uint64_t;

enum class Op : std::uint8_t { insert_, modify_, delete_, announce_ };
[[nodiscard]] std::string text(Op op);

// The match fields in the order of the key, by number.
enum Field : std::uint8_t {
  ingressPort_,
  egressPort_,
  ethSrc_,
  ethDst_,
  etherType_,
  vlanId_,
  ip4Src_,
  ip4Dst_,
  ip4Dscp_,
  ip4Protocol_,
  ip4Ttl_,
  ip6Src_,
  ip6Dst_,
  ip6Dscp_,
  ip6NextHeader_,
  ip6HopLimit_,
  arpTarget_,
  icmpType_,
  dscp_,
  nextHeader_,
  hopLimit_,
  l4SrcPort_,
  l4DstPort_,
  innerL3Data_,
  isIpPacket_,
  fieldCount_,
};
enum class Form : std::uint8_t { number_, mac_, ip4_, ip6_, flag_ };
struct FieldInfo {
  std::string_view name;
  Form form;
  unsigned bits;
};
[[nodiscard]] const FieldInfo& info(Field field);

struct Bits {
  std::uint64_t high = 0;  // of an IPv6 address; otherwise 0
  std::uint64_t low = 0;
  friend auto operator<=>(const Bits&, const Bits&) = default;
};
struct MatchField {
  Field field{};
  Bits value;
  Bits mask;
  friend auto operator<=>(const MatchField&, const MatchField&) = default;
};

struct FlowKey {
  std::uint8_t table = 0;
  std::int32_t tableType = 0;
  std::uint32_t priorityGroup = 0;
  std::int32_t priority = 0;
  std::vector<MatchField> fields;  // by number, each at most once
  friend auto operator<=>(const FlowKey&, const FlowKey&) = default;
};

struct Policer {
  std::uint64_t rate = 0;
  std::uint64_t burst = 0;
  std::array<bool, 3> drop{};  // green, yellow, red
};

struct FlowActions {
  std::optional<std::uint32_t> output, vrf, group, member;
  std::optional<std::uint16_t> vlan;
  std::optional<std::uint8_t> trafficClass, cpuTrafficClass, setDscp;
  std::optional<std::uint64_t> setEthSrc, setEthDst;
  std::optional<std::string> mirrorIngress, mirrorEgress;
  std::optional<Policer> policer;
  bool drop = false, copyToCpu = false, decTtl = false;
};

class Model;

// A line of ostra-sim, and what it does to the model.
struct Step {
  std::string line;
  std::function<void(Model&)> play;
};
// One command, or the writes of a batch.
struct Command {
  std::vector<Step> steps;
  bool isBatch = false;
  bool bracketed = false;  // also if it is a single write
};

// As ostra-sim reads it: one line, or those of a batch.
[[nodiscard]] Lines lines(const Command& command);
[[nodiscard]] std::string macText(std::uint64_t address);
[[nodiscard]] std::string ip4Text(std::uint32_t address);
[[nodiscard]] std::string keyText(const FlowKey& key);
[[nodiscard]] std::string actionsText(const FlowActions& actions);

}  // namespace Soak
