#include <algorithm>
#include <array>
#include <functional>

#include "FlowFixture.h"

namespace OstraTest {
namespace {

using OpenFlowTable::GroupStatus;

class FlowValidation : public FlowFixture {
 protected:
  FlowValidation() { start(); }

  // What came of a write with this key, which is taken back again.
  std::string refusal(const OstraKey& key) {
    const OstraConfigEntry entry = flow(++handle_, key);
    const std::string result = write(entry);
    EXPECT_EQ(cxFlow(handle_) != nullptr, result.empty());
    EXPECT_EQ(sm->flowKeyToEntryHandle(key).has_value(), result.empty());
    static_cast<void>(remove(entry));
    const std::string own = std::to_string(handle_) + " ";
    return result.starts_with(own) ? result.substr(own.size()) : result;
  }

 private:
  std::uint64_t handle_ = 100;
};

const Korm::IpAddr ip4 = *Korm::parseIpAddr("10.1.2.3");
const Korm::IpAddr ip4Mask = *Korm::parseIpAddr("255.255.255.0");
const Korm::IpAddr ip6 = *Korm::parseIpAddr("2001:db8::1");
const Korm::IpAddr ip6Mask = *Korm::parseIpAddr("ffff::");

using Fill = std::function<void(OstraKey&)>;

// The ways to give the ether type and the is-IP-packet flag.
struct Given {
  const char* how;
  Fill fill;
};
const Given ignoredTypes[] = {
    {"no ether type", [](OstraKey&) {}},
    {"ether type with mask 0", [](OstraKey& key) { key.etherTypeIs(0x0800, 0); }},
};
const Given ip4Type = {"0x0800", [](OstraKey& key) { key.etherTypeIs(0x0800, 0xFFFF); }};
const Given ip6Type = {"0x86DD", [](OstraKey& key) { key.etherTypeIs(0x86DD, 0xFFFF); }};
const Given arpType = {"0x0806", [](OstraKey& key) { key.etherTypeIs(0x0806, 0xFFFF); }};
const Given otherTypes[] = {
    arpType,
    {"0x88CC", [](OstraKey& key) { key.etherTypeIs(0x88CC, 0xFFFF); }},
    {"0x0000", [](OstraKey& key) { key.etherTypeIs(0, 0xFFFF); }},
};
const Given ignoredFlags[] = {
    {"no flag", [](OstraKey&) {}},
    {"flag true with mask false", [](OstraKey& key) { key.isIpPacketIs(true, false); }},
    {"flag false with mask false", [](OstraKey& key) { key.isIpPacketIs(false, false); }},
};
const Given flagTrue = {"flag true", [](OstraKey& key) { key.isIpPacketIs(true, true); }};
const Given flagFalse = {"flag false", [](OstraKey& key) { key.isIpPacketIs(false, true); }};

const std::string etherTypeName = "hdr.ethernet.ether_type";

std::string undefined(const std::string& field) {
  return "undefinedBehavior: the combination of " + etherTypeName + " and " + field +
         " has no defined behavior";
}

// One of the nine cells, and what it means for the fields that depend on it.
struct Cell {
  std::vector<Given> etherTypes;
  std::vector<Given> flags;
  std::string error;  // for every key of the cell, if any
  bool isIp;
  std::string reason;  // why dscp, hop limit and next header are not allowed, if they are not
};

const std::string conflict = undefined("local.metadata.isIpPacket");

const Cell cells[] = {
    {{std::begin(ignoredTypes), std::end(ignoredTypes)},
     {std::begin(ignoredFlags), std::end(ignoredFlags)},
     "",
     false,
     "ether type is ignored and isIpPacket is ignored"},
    {{std::begin(ignoredTypes), std::end(ignoredTypes)}, {flagTrue}, "", true, ""},
    {{std::begin(ignoredTypes), std::end(ignoredTypes)},
     {flagFalse},
     "",
     false,
     "ether type is ignored and isIpPacket is false"},
    {{ip4Type, ip6Type}, {std::begin(ignoredFlags), std::end(ignoredFlags)}, "", true, ""},
    {{ip4Type, ip6Type}, {flagTrue}, "", true, ""},
    {{ip4Type, ip6Type}, {flagFalse}, conflict, false, ""},
    {{std::begin(otherTypes), std::end(otherTypes)},
     {std::begin(ignoredFlags), std::end(ignoredFlags)},
     "",
     false,
     "ether type is non-ip and isIpPacket is ignored"},
    {{std::begin(otherTypes), std::end(otherTypes)},
     {flagFalse},
     "",
     false,
     "ether type is non-ip and isIpPacket is false"},
    {{std::begin(otherTypes), std::end(otherTypes)}, {flagTrue}, conflict, false, ""},
};

// A field that depends on the two: constrained, and given as a wildcard.
struct Dependent {
  std::string name;
  std::vector<std::string> etherTypes;  // the exact ones that it needs; none: it needs IP
  Fill constrained;
  Fill wildcard;
};

const Dependent dependents[] = {
    {"hdr.ipv6_base.dst_addr",
     {"0x86DD"},
     [](OstraKey& key) { key.ip6DstIs(ip6, ip6Mask); },
     [](OstraKey& key) { key.ip6DstIs(ip6, Korm::IpAddr{}); }},
    {"hdr.ipv6_base.src_addr",
     {"0x86DD"},
     [](OstraKey& key) { key.ip6SrcIs(ip6, ip6Mask); },
     [](OstraKey& key) { key.ip6SrcIs(ip6, Korm::IpAddr{Korm::Ip6Addr{}}); }},
    {"hdr.ipv4_base.dst_addr",
     {"0x0800"},
     [](OstraKey& key) { key.ip4DstIs(ip4, ip4Mask); },
     [](OstraKey& key) { key.ip4DstIs(ip4, Korm::IpAddr{Korm::Ip4Addr{}}); }},
    {"hdr.ipv4_base.src_addr",
     {"0x0800"},
     [](OstraKey& key) { key.ip4SrcIs(ip4, ip4Mask); },
     [](OstraKey& key) { key.ip4SrcIs(ip4, Korm::IpAddr{}); }},
    {"hdr.arp.target_proto_addr",
     {"0x0806"},
     [](OstraKey& key) { key.arpTargetIs(ip4, ip4Mask); },
     [](OstraKey& key) { key.arpTargetIs(ip4, Korm::IpAddr{Korm::Ip4Addr{}}); }},
    {"hdr.icmp.type",
     {"0x0800", "0x86DD"},
     [](OstraKey& key) { key.icmpTypeIs(8, 0x01); },
     [](OstraKey& key) { key.icmpTypeIs(8, 0); }},
    {"local_metadata.dscp",
     {},
     [](OstraKey& key) { key.dscpIs(46, 0x3F); },
     [](OstraKey& key) { key.dscpIs(46, 0); }},
    {"local_metadata.hop_limit",
     {},
     [](OstraKey& key) { key.hopLimitIs(64, 0xFF); },
     [](OstraKey& key) { key.hopLimitIs(64, 0); }},
    {"local_metadata.next_header",
     {},
     [](OstraKey& key) { key.nextHeaderIs(6, 0xFF); },
     [](OstraKey& key) { key.nextHeaderIs(6, 0); }},
};

std::string expected(const Cell& cell, const Given& etherType, const Dependent& field) {
  if (!cell.error.empty()) {
    return cell.error;
  }
  if (field.etherTypes.empty()) {
    return cell.isIp ? "" : "notAllowed: " + field.name + " is not allowed because " + cell.reason;
  }
  const bool there = std::find(field.etherTypes.begin(), field.etherTypes.end(), etherType.how) !=
                     field.etherTypes.end();
  return there ? "" : undefined(field.name);
}

// Every way to give the ether type and the flag, each with its cell.
void forEachCombination(
    const std::function<void(const Cell&, const Given& etherType, const Given& flag)>& visit) {
  for (const Cell& cell : cells) {
    for (const Given& etherType : cell.etherTypes) {
      for (const Given& flag : cell.flags) {
        SCOPED_TRACE(etherType.how + std::string{", "} + flag.how);
        visit(cell, etherType, flag);
      }
    }
  }
}

TEST_F(FlowValidation, EtherTypeAndIsIpPacketDecideWhichFieldsMayBeConstrained) {
  unsigned combinations = 0;
  forEachCombination([&](const Cell& cell, const Given& etherType, const Given& flag) {
    ++combinations;
    OstraKey key;
    etherType.fill(key);
    flag.fill(key);
    EXPECT_EQ(refusal(key), cell.error);
    for (const Dependent& field : dependents) {
      OstraKey constrained = key;
      field.constrained(constrained);
      EXPECT_EQ(refusal(constrained), expected(cell, etherType, field)) << field.name;
      OstraKey wildcard = key;
      field.wildcard(wildcard);
      EXPECT_EQ(refusal(wildcard), cell.error) << field.name << " with a mask of zero";
    }
  });
  EXPECT_EQ(combinations, 7U * 5U);
}

TEST_F(FlowValidation, TheOtherFieldsDoNotDependOnTheEtherType) {
  forEachCombination([&](const Cell& cell, const Given& etherType, const Given& flag) {
    OstraKey key;
    etherType.fill(key);
    flag.fill(key);
    key.ip4DscpIs(1, 0x3F);
    key.ip4ProtocolIs(6, 0xFF);
    key.ip4TtlIs(1, 0xFF);
    key.ip6DscpIs(1, 0x3F);
    key.ip6NextHeaderIs(6, 0xFF);
    key.ip6HopLimitIs(1, 0xFF);
    key.l4SrcPortIs(1, 0xFFFF);
    key.innerL3DataIs(1, 0xFF);
    key.ethSrcIs({{2, 0, 0, 0, 0, 1}}, Korm::EthAddr::allOnes());
    EXPECT_EQ(refusal(key), cell.error);
  });
}

TEST_F(FlowValidation, APartialEtherTypeMaskIsRefusedWhateverElseIsGiven) {
  const std::string refused =
      "invalidMask: hdr.ethernet.ether_type should be a wildcard or an exact value";
  for (const std::uint16_t mask : std::array<std::uint16_t, 4>{0xFF00, 0x0001, 0x8000, 0xFFFE}) {
    OstraKey key;
    key.etherTypeIs(0x0800, mask);
    EXPECT_EQ(refusal(key), refused) << mask;
    key.isIpPacketIs(false, true);
    key.ip6DstIs(ip6, ip6Mask);
    EXPECT_EQ(refusal(key), refused) << mask;
  }
}

TEST_F(FlowValidation, PortsAreCheckedMaskFirst) {
  const auto ingress = [&](P4Runtime::P4PortId port, P4Runtime::P4PortId mask) {
    OstraKey key;
    key.ingressPortIs(port, mask);
    return refusal(key);
  };
  EXPECT_EQ(ingress(1, 0xFFFFFFFF), "");
  EXPECT_EQ(ingress(0xFFFFFEFF, 0xFFFFFFFF), "");
  EXPECT_EQ(ingress(0, 0), "") << "a wildcard is not checked";
  EXPECT_EQ(ingress(0xFFFFFFFF, 0), "");
  const std::string range = " is outside 1 to 4294967039";
  EXPECT_EQ(ingress(0, 0xFFFFFFFF), "invalidArgument: ingress port-id: port id 0" + range);
  EXPECT_EQ(ingress(0xFFFFFF00, 0xFFFFFFFF),
            "invalidArgument: ingress port-id: port id 4294967040" + range);
  const std::string badMask = "invalidArgument: ingress port-id: mask 1 is not all ones";
  EXPECT_TRUE(ingress(1, 1).starts_with(badMask));
  EXPECT_TRUE(ingress(0, 1).starts_with(badMask)) << "the mask comes first";
}

// The faults that one entry can have, in the order in which they are found; each with what ends it.
struct Fault {
  std::string said;
  std::function<void(OstraConfigEntry&)> repair;
};

const std::string portRange = " is outside 1 to 4294967039";
const std::string trafficClassRange =
    "raised: TrafficClass::value < TrafficClass::min or > TrafficClass::invalid not allowed";
const std::string notAllowedReason =
    " is not allowed because ether type is ignored and isIpPacket is false";

const Fault matchFaults[] = {
    {"invalidArgument: ingress port-id: mask 7 is not all ones; a port is matched exactly",
     [](auto& entry) { entry.flowKey.ingressPortIs(0, 0xFFFFFFFF); }},
    {"invalidArgument: ingress port-id: port id 0" + portRange,
     [](auto& entry) { entry.flowKey.ingressPortIs(1, 0xFFFFFFFF); }},
    {"invalidArgument: egress port-id: mask 7 is not all ones; a port is matched exactly",
     [](auto& entry) { entry.flowKey.egressPortIs(0, 0xFFFFFFFF); }},
    {"invalidArgument: egress port-id: port id 0" + portRange,
     [](auto& entry) { entry.flowKey.egressPortIs(1, 0xFFFFFFFF); }},
    {"invalidMask: hdr.ethernet.ether_type should be a wildcard or an exact value",
     [](auto& entry) { entry.flowKey.etherTypeIs(0x0800, 0xFFFF); }},
    {conflict, [](auto& entry) { entry.flowKey.etherTypeIs(0, 0); }},
    {undefined("hdr.ipv6_base.dst_addr"), [](auto& entry) { entry.flowKey.ip6DstIs(ip6, {}); }},
    {undefined("hdr.ipv6_base.src_addr"), [](auto& entry) { entry.flowKey.ip6SrcIs(ip6, {}); }},
    {undefined("hdr.ipv4_base.dst_addr"), [](auto& entry) { entry.flowKey.ip4DstIs(ip4, {}); }},
    {undefined("hdr.ipv4_base.src_addr"), [](auto& entry) { entry.flowKey.ip4SrcIs(ip4, {}); }},
    {undefined("hdr.arp.target_proto_addr"),
     [](auto& entry) { entry.flowKey.arpTargetIs(ip4, {}); }},
    {undefined("hdr.icmp.type"), [](auto& entry) { entry.flowKey.icmpTypeIs(8, 0); }},
    {"notAllowed: local_metadata.dscp" + notAllowedReason,
     [](auto& entry) { entry.flowKey.dscpIs(1, 0); }},
    {"notAllowed: local_metadata.hop_limit" + notAllowedReason,
     [](auto& entry) { entry.flowKey.hopLimitIs(1, 0); }},
    {"notAllowed: local_metadata.next_header" + notAllowedReason,
     [](auto& entry) { entry.flowKey.nextHeaderIs(1, 0); }},
    {"raised: VlanIdOrNone::value > 4094 not allowed",
     [](auto& entry) { entry.flowKey.vlanIdIs(4094, 4096); }},
    {"raised: VlanIdOrAnyOrNone::value > 4095 not allowed",
     [](auto& entry) { entry.flowKey.vlanIdIs(4094, 4095); }},
};
const Fault earlyActionFaults[] = {
    {trafficClassRange, [](auto& entry) { entry.actions.uncheckedTrafficClassIs(16, true); }},
    {"invalidArgument: egress port-id: port id 0" + portRange,
     [](auto& entry) { entry.outputPortIs(2); }},
    {"raised: VlanIdOrNone::value > 4094 not allowed", [](auto& entry) { entry.vlanId = 4094; }},
};
const Fault lateFaults[] = {
    {trafficClassRange, [](auto& entry) { entry.actions.uncheckedCpuTrafficClassIs(16, true); }},
    {"notFound: Group id: 3 is not found", [](auto& entry) { entry.groupGiven = false; }},
    {"raised: Priority::value < -1 or > Priority::max not allowed",
     [](auto& entry) { entry.flowKey.priorityIs(65536); }},
};

OstraConfigEntry withEveryFault(OstraConfigEntry entry) {
  OstraKey& key = entry.flowKey;
  key.ingressPortIs(0, 7);
  key.egressPortIs(0, 7);
  key.etherTypeIs(0x0800, 0xFF00);
  key.isIpPacketIs(false, true);
  for (const Dependent& field : dependents) {
    field.constrained(key);
  }
  key.vlanIdIs(4095, 4096);
  key.priorityIs(65537);
  entry.actions.uncheckedTrafficClassIs(17, true);
  entry.outputPortIs(0);
  entry.vrfGiven = true;
  entry.vrfId = 5;
  entry.vlanGiven = true;
  entry.vlanId = 4095;
  entry.actions.uncheckedCpuTrafficClassIs(17, true);
  entry.groupGiven = true;
  entry.groupId = 3;
  return entry;
}

TEST_F(FlowValidation, AnEntryWithManyFaultsIsRefusedForTheFirst) {
  OstraConfigEntry entry = withEveryFault(flow(7, OstraKey{}));
  // What a write says; the row then goes without a trace.
  const auto said = [&](bool vrfBooked, bool mapped) {
    const std::string result = write(entry);
    EXPECT_EQ(sm->vrfId(entry.flowKey), vrfBooked ? 5U : noVrf);
    EXPECT_EQ(sm->flowKeyToEntryHandle(entry.flowKey).has_value(), mapped);
    sm->hasNotificationActiveIs(false);
    table->entryDel(entry.flowKey);
    sm->hasNotificationActiveIs(true);
    return result.starts_with("7 ") ? result.substr(2) : result;
  };
  for (const Fault& fault : matchFaults) {
    ASSERT_EQ(said(false, false), fault.said);
    fault.repair(entry);
  }
  for (const Fault& fault : earlyActionFaults) {
    ASSERT_EQ(said(false, false), fault.said);
    fault.repair(entry);
  }
  EXPECT_EQ(books(5), neverUsed) << "so far nothing was left behind";
  for (const Fault& fault : lateFaults) {
    ASSERT_EQ(said(true, fault.said.find("Priority") != std::string::npos), fault.said);
    EXPECT_EQ(books(5), "1 users, creator 7, deletor none");
    EXPECT_EQ(cxHwConfig->flowEntries().size(), 0U);
    fault.repair(entry);
  }
  EXPECT_EQ(said(true, true), "");
  EXPECT_EQ(theFlow(7).priority().value(), 65536);
}

class FlowGroupReference : public FlowFixture {
 protected:
  FlowGroupReference() { start(); }

  static constexpr std::uint64_t memberBit = 0x1'0000'0000;

  std::string writeToGroup(P4Runtime::MemberOrGroupId id) {
    OstraConfigEntry entry = flow(7, plainKey(1));
    entry.groupGiven = true;
    entry.groupId = id;
    return write(entry);
  }
  std::string writeToMember(P4Runtime::MemberOrGroupId id) {
    OstraConfigEntry entry = flow(7, plainKey(1));
    entry.memberGiven = true;
    entry.memberId = id;
    return write(entry);
  }
};

TEST_F(FlowGroupReference, NeedsTheGroupConfiguredAndReadyInHardware) {
  const std::string refused = "7 notFound: Group id: 3 is not found";
  EXPECT_EQ(writeToGroup(3), refused) << "no status entity, no group";
  cxHwConfig->groupEntryIs(3);
  EXPECT_EQ(writeToGroup(3), refused) << "no status entity";
  cxHwStatusDir->entityIs("p4rt", Korm::makePtr<Korm::Dir>("p4rt"));
  EXPECT_EQ(writeToGroup(3), refused) << "a status entity of another type";
  const auto status = publishHwStatus();
  EXPECT_EQ(writeToGroup(3), refused) << "the hardware does not know the group";
  OpenFlowTable::GroupStats& stats = status->groupStatsIs(3, GroupStatus::pending_);
  for (const std::uint32_t number : {1U, 2U, 3U, 4U, 77U, 0x8000'0000U, 0xFFFF'FFFFU}) {
    stats.statusIs(GroupStatus{number});
    EXPECT_EQ(writeToGroup(3), refused) << number;
  }
  EXPECT_EQ(cxFlow(7), nullptr);
  EXPECT_FALSE(sm->flowKeyToEntryHandle(plainKey(1)).has_value());
  stats.statusIs(GroupStatus::ready_);
  EXPECT_EQ(writeToGroup(3), "");
  EXPECT_EQ(theFlow(7).actions().group(), 3U);
  EXPECT_TRUE(theFlow(7).actions().has(OpenFlowTable::Action::group_));
  cxHwConfig->groupEntryDel(3);
  EXPECT_EQ(writeToGroup(3), refused) << "ready in hardware, not configured any more";
  EXPECT_EQ(theFlow(7).actions().group(), 3U) << "the flow stays as it was";
}

TEST_F(FlowGroupReference, ToAMemberIsToTheGroupThatStandsForIt) {
  const auto status = publishHwStatus();
  cxHwConfig->groupEntryIs(5);
  status->groupStatsIs(5, GroupStatus::ready_);
  EXPECT_EQ(writeToMember(5), "7 notFound: Member id: 5 is not found") << "group 5 is not member 5";
  cxHwConfig->groupEntryIs(memberBit | 5U);
  status->groupStatsIs(memberBit | 5U, GroupStatus::ready_);
  EXPECT_EQ(writeToMember(5), "");
  EXPECT_EQ(theFlow(7).actions().group(), 4294967301U);
  EXPECT_EQ(writeToMember(0xFFFFFFFF), "7 notFound: Member id: 4294967295 is not found");
  EXPECT_EQ(writeToGroup(0xFFFFFFFF), "7 notFound: Group id: 4294967295 is not found");
}

TEST_F(FlowGroupReference, WithBothGoesToTheGroupAndBlamesTheMember) {
  const auto status = publishHwStatus();
  OstraConfigEntry entry = flow(7, plainKey(1));
  entry.memberGiven = true;
  entry.memberId = 5;
  entry.groupGiven = true;
  entry.groupId = 3;
  cxHwConfig->groupEntryIs(memberBit | 5U);
  status->groupStatsIs(memberBit | 5U, GroupStatus::ready_);
  EXPECT_EQ(write(entry), "7 notFound: Member id: 5 is not found") << "group 3 is what is missing";
  cxHwConfig->groupEntryIs(3);
  status->groupStatsIs(3, GroupStatus::ready_);
  EXPECT_EQ(write(entry), "");
  EXPECT_EQ(theFlow(7).actions().group(), 3U);
}

TEST_F(FlowGroupReference, IsReadFromTheEntryAndNotFromItsActionSet) {
  OstraConfigEntry entry = flow(7, plainKey(1));
  entry.actions.groupIs(9, true);
  EXPECT_EQ(write(entry), "");
  EXPECT_FALSE(theFlow(7).actions().has(OpenFlowTable::Action::group_));
}

}  // namespace
}  // namespace OstraTest
