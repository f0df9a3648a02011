// The commands of a history, and how ostra-sim spells them.
//
// Thread and process rule: plain values.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Soak {

using Lines = std::vector<std::string>;
using Handle = std::uint64_t;

enum class Op : std::uint8_t { insert_, modify_, delete_, announce_ };
[[nodiscard]] std::string_view text(Op op);

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
[[nodiscard]] std::string macText(std::uint64_t address);
[[nodiscard]] std::string ip4Text(std::uint32_t address);

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

struct FlowWrite {
  Op op{};
  FlowKey key;
  FlowActions actions;
};
struct MemberWrite {
  Op op{};
  std::uint32_t id = 0;
  std::uint32_t port = 0;
  std::uint16_t encap = 0;
  std::uint64_t dstMac = 0, srcMac = 0;
};
struct GroupWrite {
  Op op{};
  std::uint32_t id = 0;
  std::vector<std::uint32_t> members;
};
using Write = std::variant<FlowWrite, MemberWrite, GroupWrite>;

// Several writes, or one between `begin` and `commit`; otherwise one alone.
struct Batch {
  std::vector<Write> writes;
  bool bracketed = false;
};
struct PortIs {
  std::uint32_t id = 0;
  std::string name;  // empty: drop the mapping
};
struct EncapIs {
  std::uint16_t id = 0;
  bool removed = false;
  std::uint32_t src = 0, dst = 0;
  std::uint8_t ttl = 0, dscp = 0;
};
struct HwMode {
  bool automatic = true;
};
struct HwRun {};
struct HwFlow {
  std::string name;
  std::optional<std::uint32_t> status;  // nothing: remove
};
struct HwGroup {
  std::uint64_t id = 0;
  std::optional<std::uint32_t> status;  // nothing: remove
};
struct HwCapacity {
  bool ofGroups = false;
  std::optional<std::uint32_t> room;
};
struct HwCount {
  std::string name;
  std::uint64_t packets = 0, bytes = 0;
  std::string unit;
};
struct HwPublish {
  bool published = true;
};
struct CorvexFlow {
  std::string name;
  bool removed = false;
};
struct Stop {};
struct Start {
  bool bare = false;
};
struct Resync {};
struct Counter {
  Handle handle = 0;
};

using Command = std::variant<Batch, PortIs, EncapIs, HwMode, HwRun, HwFlow, HwGroup, HwCapacity,
                             HwCount, HwPublish, CorvexFlow, Stop, Start, Resync, Counter>;

// As ostra-sim reads it: one line, or those of a batch.
[[nodiscard]] Lines lines(const Command& command);

}  // namespace Soak
