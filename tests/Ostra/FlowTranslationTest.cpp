#include <algorithm>
#include <functional>
#include <limits>

#include "FlowFixture.h"

namespace OstraTest {
namespace {

using OpenFlowTable::Action;
using OpenFlowTable::L3PacketType;
using OpenFlowTable::Match;
using OpenFlowTable::TableType;
using Field = Match::Field;

const Korm::EthAddr mac = {{2, 0, 0, 0, 0, 5}};
const Korm::EthAddr macMask = {{0xFF, 0xFF, 0xFF, 0, 0, 0}};
const Korm::IpAddr ip4 = *Korm::parseIpAddr("10.1.2.3");
const Korm::IpAddr ip4Mask = *Korm::parseIpAddr("255.255.255.0");
const Korm::IpAddr ip6 = *Korm::parseIpAddr("2001:db8::1");
const Korm::IpAddr ip6Mask = *Korm::parseIpAddr("ffff:ffff::");

using Fill = std::function<void(OstraKey&)>;
using Expect = std::function<void(Match&)>;

// Sets a field of the match that a test expects.
template <class T, class V>
void put(Match& match, Field field, OpenFlowTable::Masked<T> Match::*member, V value, V mask) {
  match.*member = {static_cast<T>(value), static_cast<T>(mask)};
  match.hasIs(field, true);
}
void put(Match& match, L3PacketType type) {
  match.l3PacketType = type;
  match.hasIs(Field::l3PacketType_, true);
}
void ip4EtherType(OstraKey& key) { key.etherTypeIs(0x0800, 0xFFFF); }
void expectIp4EtherType(Match& match) {
  put(match, Field::etherType_, &Match::etherType, 0x0800, 0xFFFF);
}
void ip6EtherType(OstraKey& key) { key.etherTypeIs(0x86DD, 0xFFFF); }
void expectIp6EtherType(Match& match) {
  put(match, Field::etherType_, &Match::etherType, 0x86DD, 0xFFFF);
}

class FlowTranslation : public FlowFixture {
 protected:
  FlowTranslation() { start(); }

  // Writes an entry with this match and shows what Corvex was given.
  const Match& matchOf(const Fill& fill) {
    OstraKey key;
    fill(key);
    EXPECT_EQ(write(flow(++handle_, key)), "");
    return theFlow(handle_).match();
  }

 private:
  std::uint64_t handle_ = 100;
};

struct Conversion {
  const char* what;
  Fill given;
  Expect becomes;
};

const Conversion layer2[] = {
    {"nothing", [](OstraKey&) {}, [](Match&) {}},
    {"ingress port", [](OstraKey& key) { key.ingressPortIs(1, 0xFFFFFFFF); },
     [](Match& match) { match.inIntfIs(Interface::IntfId{"Ethernet1"}, true); }},
    {"egress port", [](OstraKey& key) { key.egressPortIs(2, 0xFFFFFFFF); },
     [](Match& match) { match.egressIntfIs(Interface::IntfId{"Ethernet2"}, true); }},
    {"port without an interface", [](OstraKey& key) { key.ingressPortIs(9, 0xFFFFFFFF); },
     [](Match& match) { match.inIntfIs(Interface::IntfId{}, true); }},
    {"Ethernet source", [](OstraKey& key) { key.ethSrcIs(mac, macMask); },
     [](Match& match) {
       match.ethSrc = {mac, macMask};
       match.hasIs(Field::ethSrc_, true);
     }},
    {"Ethernet destination", [](OstraKey& key) { key.ethDstIs(Korm::EthAddr{}, macMask); },
     [](Match& match) {
       match.ethDst = {Korm::EthAddr{}, macMask};
       match.hasIs(Field::ethDst_, true);
     }},
    {"VLAN", [](OstraKey& key) { key.vlanIdIs(4094, 4095); },
     [](Match& match) { put(match, Field::vlanId_, &Match::vlanId, 4094, 4095); }},
    {"no VLAN", [](OstraKey& key) { key.vlanIdIs(0, 1); },
     [](Match& match) { put(match, Field::vlanId_, &Match::vlanId, 0, 1); }},
    {"ether type", ip6EtherType, expectIp6EtherType},
    {"IP packets", [](OstraKey& key) { key.isIpPacketIs(true, true); },
     [](Match& match) { put(match, L3PacketType::ip_); }},
    {"packets that are not IP", [](OstraKey& key) { key.isIpPacketIs(false, true); },
     [](Match& match) { put(match, L3PacketType::nonIp_); }},
};

const Conversion layer3[] = {
    {"IPv4 addresses",
     [](OstraKey& key) {
       ip4EtherType(key);
       key.ip4SrcIs(ip4, ip4Mask);
       key.ip4DstIs(Korm::IpAddr{}, ip4Mask);
     },
     [](Match& match) {
       expectIp4EtherType(match);
       match.ipSrc = {ip4.ip4(), ip4Mask.ip4()};
       match.hasIs(Field::ipSrc_, true);
       match.ipDst = {Korm::Ip4Addr{}, ip4Mask.ip4()};
       match.hasIs(Field::ipDst_, true);
     }},
    {"IPv6 addresses",
     [](OstraKey& key) {
       ip6EtherType(key);
       key.ip6SrcIs(ip6, ip6Mask);
       key.ip6DstIs(ip6Mask, ip6);
     },
     [](Match& match) {
       expectIp6EtherType(match);
       match.ip6Src = {ip6.ip6(), ip6Mask.ip6()};
       match.hasIs(Field::ip6Src_, true);
       match.ip6Dst = {ip6Mask.ip6(), ip6.ip6()};
       match.hasIs(Field::ip6Dst_, true);
     }},
    {"ARP target",
     [](OstraKey& key) {
       key.etherTypeIs(0x0806, 0xFFFF);
       key.arpTargetIs(ip4, ip4Mask);
     },
     [](Match& match) {
       put(match, Field::etherType_, &Match::etherType, 0x0806, 0xFFFF);
       match.arpTargetAddr = {ip4.ip4(), ip4Mask.ip4()};
       match.hasIs(Field::arpTargetAddr_, true);
     }},
    {"ICMP type",
     [](OstraKey& key) {
       ip4EtherType(key);
       key.icmpTypeIs(8, 0x0F);
     },
     [](Match& match) {
       expectIp4EtherType(match);
       put(match, Field::icmpType_, &Match::icmpType, 8, 0x0F);
     }},
    {"DSCP of IPv4, shifted into the type of service",
     [](OstraKey& key) { key.ip4DscpIs(46, 0x3F); },
     [](Match& match) { put(match, Field::tos_, &Match::tos, 0xB8, 0xFC); }},
    {"DSCP with bits that fall out of the byte", [](OstraKey& key) { key.ip6DscpIs(0xFF, 0xC1); },
     [](Match& match) { put(match, Field::tos_, &Match::tos, 0xFC, 0x04); }},
    {"protocol of IPv6", [](OstraKey& key) { key.ip6NextHeaderIs(6, 0x7F); },
     [](Match& match) { put(match, Field::ipProto_, &Match::ipProto, 6, 0x7F); }},
    {"TTL of IPv4", [](OstraKey& key) { key.ip4TtlIs(64, 0xFF); },
     [](Match& match) { put(match, Field::ttl_, &Match::ttl, 64, 0xFF); }},
};

const Conversion layer4[] = {
    {"ports",
     [](OstraKey& key) {
       key.l4SrcPortIs(80, 0xFFFF);
       key.l4DstPortIs(0, 0xFFF0);
     },
     [](Match& match) {
       put(match, Field::l4SrcPort_, &Match::l4SrcPort, 80, 0xFFFF);
       put(match, Field::l4DstPort_, &Match::l4DstPort, 0, 0xFFF0);
     }},
    {"inner layer-3 byte, in bits 16 to 23", [](OstraKey& key) { key.innerL3DataIs(0xA5, 0xF0); },
     [](Match& match) { put(match, Field::innerData_, &Match::innerData, 0xA50000, 0xF00000); }},
};

// Where several fields of the key share one of Corvex, the later one stands.
const Conversion overwriting[] = {
    {"all three",
     [](OstraKey& key) {
       key.isIpPacketIs(true, true);
       key.ip4DscpIs(1, 0x3F);
       key.ip6DscpIs(2, 0x3F);
       key.dscpIs(3, 0x3E);
       key.ip4ProtocolIs(1, 0xFF);
       key.ip6NextHeaderIs(2, 0xFF);
       key.nextHeaderIs(3, 0xFE);
       key.ip4TtlIs(1, 0xFF);
       key.ip6HopLimitIs(2, 0xFF);
       key.hopLimitIs(3, 0xFE);
     },
     [](Match& match) {
       put(match, L3PacketType::ip_);
       put(match, Field::tos_, &Match::tos, 3 << 2, 0x3E << 2);
       put(match, Field::ipProto_, &Match::ipProto, 3, 0xFE);
       put(match, Field::ttl_, &Match::ttl, 3, 0xFE);
     }},
    {"the last a wildcard",
     [](OstraKey& key) {
       key.ip4DscpIs(1, 0x3F);
       key.ip6DscpIs(2, 0x3F);
       key.dscpIs(3, 0);
       key.ip4ProtocolIs(1, 0xFF);
       key.ip6NextHeaderIs(2, 0xFF);
       key.nextHeaderIs(3, 0);
       key.ip4TtlIs(1, 0xFF);
       key.ip6HopLimitIs(2, 0xFF);
       key.hopLimitIs(3, 0);
     },
     [](Match& match) {
       put(match, Field::tos_, &Match::tos, 2 << 2, 0xFC);
       put(match, Field::ipProto_, &Match::ipProto, 2, 0xFF);
       put(match, Field::ttl_, &Match::ttl, 2, 0xFF);
     }},
    {"only the first",
     [](OstraKey& key) {
       key.ip4DscpIs(1, 0x3F);
       key.ip4ProtocolIs(1, 0xFF);
       key.ip4TtlIs(1, 0xFF);
     },
     [](Match& match) {
       put(match, Field::tos_, &Match::tos, 1 << 2, 0xFC);
       put(match, Field::ipProto_, &Match::ipProto, 1, 0xFF);
       put(match, Field::ttl_, &Match::ttl, 1, 0xFF);
     }},
};

TEST_F(FlowTranslation, EachConstrainedFieldBecomesItsCorvexField) {
  const auto check = [&](const auto& conversions) {
    for (const Conversion& conversion : conversions) {
      Match expected;
      conversion.becomes(expected);
      EXPECT_TRUE(matchOf(conversion.given) == expected) << conversion.what;
    }
  };
  check(layer2);
  check(layer3);
  check(layer4);
  check(overwriting);
}

TEST_F(FlowTranslation, AMaskOfZeroIsAWildcardInEveryField) {
  const Match& match = matchOf([](OstraKey& key) {
    key.forEachField([](std::string_view, const auto& field, auto put) {
      using T = decltype(field.value);
      if constexpr (std::is_same_v<T, bool>) {
        put(true, false);
      } else if constexpr (std::is_integral_v<T>) {
        put(std::numeric_limits<T>::max(), T{});
      } else if constexpr (std::is_same_v<T, Korm::EthAddr>) {
        put(T::allOnes(), T{});
      } else {
        put(ip6Mask, T{});
      }
    });
    key.ip4SrcIs(ip4, Korm::IpAddr{Korm::Ip4Addr{}});
    key.ip6DstIs(ip6, Korm::IpAddr{Korm::Ip6Addr{}});
  });
  EXPECT_TRUE(match == Match{});
}

TEST_F(FlowTranslation, EtherTypesOfIpBecomeThePacketTypeInTablesOfTypeOneOnly) {
  struct Case {
    std::int32_t tableType;
    std::uint16_t etherType;
    std::uint16_t mask;
    L3PacketType becomes;  // nonIp_: the ether type stays
  };
  constexpr Case cases[] = {
      {1, 0x0800, 0xFFFF, L3PacketType::ipv4_},  {1, 0x86DD, 0xFFFF, L3PacketType::ipv6_},
      {1, 0x0806, 0xFFFF, L3PacketType::nonIp_}, {1, 0x0000, 0xFFFF, L3PacketType::nonIp_},
      {0, 0x0800, 0xFFFF, L3PacketType::nonIp_}, {0, 0x86DD, 0xFFFF, L3PacketType::nonIp_},
      {2, 0x86DD, 0xFFFF, L3PacketType::nonIp_}, {-1, 0x0800, 0xFFFF, L3PacketType::nonIp_},
  };
  for (const Case& given : cases) {
    Match expected;
    if (given.becomes == L3PacketType::nonIp_) {
      put(expected, Field::etherType_, &Match::etherType, given.etherType, given.mask);
    } else {
      put(expected, given.becomes);
      expected.etherType.mask = 0xFFFF;  // what is left of it
    }
    const Match& match = matchOf([&](OstraKey& key) {
      key.tableTypeIs(given.tableType);
      key.etherTypeIs(given.etherType, given.mask);
    });
    EXPECT_TRUE(match == expected) << given.tableType << " " << given.etherType;
  }
  const auto inTypeOne = [&](const Fill& fill) {
    return matchOf([&](OstraKey& key) {
      key.tableTypeIs(1);
      fill(key);
    });
  };
  EXPECT_TRUE(inTypeOne([](OstraKey& key) { key.etherTypeIs(0x0800, 0); }) == Match{});
  const Match both = inTypeOne([](OstraKey& key) {
    key.etherTypeIs(0x86DD, 0xFFFF);
    key.isIpPacketIs(true, true);
  });
  EXPECT_EQ(both.l3PacketType, L3PacketType::ipv6_) << "the rewrite has the last word";
}

OpenFlowTable::Actions allPlainActions() {
  OpenFlowTable::Actions actions;
  actions.trafficClassIs(OpenFlowTable::TrafficClass{16}, true);
  actions.dropIs(true);
  actions.copyToCpuIs(true);
  actions.decTtlIs(true);
  actions.setDscpIs(46, true);
  actions.setEthSrcIs(mac, true);
  actions.setEthDstIs(macMask, true);
  actions.ingrMirrorIntfIs(Interface::IntfId{"Ethernet7"}, true);
  actions.egrMirrorIntfIs(Interface::IntfId{"Ethernet8"}, true);
  actions.policerIs({.rate = 1000, .burst = 64, .dropByColor = {0, 1, 1}}, true);
  actions.cpuTrafficClassIs(OpenFlowTable::TrafficClass{0}, true);
  return actions;
}

TEST_F(FlowTranslation, ActionsAreCopiedWherePresent) {
  OstraConfigEntry entry = flow(7, plainKey(1));
  entry.actions = allPlainActions();
  entry.outputPortIs(2);
  entry.vrfGiven = true;
  entry.vrfId = 5;
  entry.vlanGiven = true;
  entry.vlanId = 4094;
  EXPECT_EQ(write(entry), "");
  OpenFlowTable::Actions expected = allPlainActions();
  expected.outputIntfIs(Interface::IntfId{"Ethernet2"}, true);
  expected.vrfIs(5, true);
  expected.vlanIdIs(Bridging::VlanIdOrNone{4094}, true);
  EXPECT_TRUE(theFlow(7).actions() == expected);

  // Values without the action that they are for.
  OstraConfigEntry absent = flow(8, plainKey(2));
  absent.actions.setDscpIs(46, false);
  absent.actions.uncheckedTrafficClassIs(99, false);
  absent.actions.uncheckedCpuTrafficClassIs(99, false);
  absent.actions.policerIs({.rate = 1}, false);
  absent.outputPort = 0;
  absent.vrfId = 5;
  absent.vlanId = 5000;
  absent.memberId = 5;
  absent.groupId = 3;
  EXPECT_EQ(write(absent), "");
  EXPECT_TRUE(theFlow(8).actions() == OpenFlowTable::Actions{});
}

TEST_F(FlowTranslation, AnInsertHandsOverTheWholeFlowAndLeavesTheResultToTheHardware) {
  const StoppedClock clock{1000};
  OstraConfigEntry entry = flow(0xFFFFFFFFFFFFFFFF, plainKey(1));
  entry.entryId = 77;
  entry.flowKey.priorityIs(-1);
  entry.flowKey.tableTypeIs(1);
  entry.flowKey.priorityGroupTypeIs(4);
  EXPECT_EQ(write(entry), "");
  ASSERT_EQ(cxHwConfig->flowEntries().size(), 1U);
  const auto* const made = cxHwConfig->flowEntry("flow-18446744073709551615");
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->priority().value(), -1);
  EXPECT_EQ(made->tableType(), TableType::l3_);
  EXPECT_EQ(made->priorityGroupType(), 4U);
  EXPECT_EQ(made->entryId(), 77U);
  EXPECT_EQ(made->changeCount(), 0.0) << "an insert is no change";
  EXPECT_EQ(made->cookie(), 0U);
  EXPECT_EQ(made->idleTimeout(), 0.0);
  EXPECT_EQ(made->hardTimeout(), 0.0);
  EXPECT_FALSE(made->sendFlowRemoved());
  EXPECT_TRUE(made->persistent());
  EXPECT_EQ(sm->flowKeyToEntryHandle(entry.flowKey), 0xFFFFFFFFFFFFFFFF);
  const auto stamp = telemetry->newest(entry.entryHandle, P4Runtime::TelemetryTimestampType{2});
  ASSERT_TRUE(stamp.has_value());
  EXPECT_EQ(stamp->time, 1000.0);
  EXPECT_EQ(telemetry->total(), 1U);
}

TEST_F(FlowTranslation, AModifyReplacesTheFlowInPlaceAndCountsAsAChange) {
  StoppedClock clock{1000};
  OstraConfigEntry entry = flow(7, plainKey(1));
  entry.actions.dropIs(true);
  EXPECT_EQ(write(entry), "");
  const auto* const before = cxFlow(7);
  Listener<const Korm::Name&> told{cxHwConfig->flowEntryNotifiees()};
  clock.nowIs(1010.5);
  entry.actions = {};
  entry.actions.setDscpIs(1, true);
  entry.entryId = 9;
  EXPECT_EQ(write(entry), "");
  EXPECT_EQ(told.take(), 1) << "no delete and re-add";
  EXPECT_EQ(cxFlow(7), before);
  EXPECT_TRUE(before->actions() == entry.actions);
  EXPECT_EQ(before->entryId(), 9U);
  EXPECT_EQ(before->changeCount(), 1010.5);
  EXPECT_EQ(telemetry->total(), 2U);
  EXPECT_EQ(cxHwConfig->flowEntries().size(), 1U);
}

TEST_F(FlowTranslation, ADeleteTakesTheFlowAndItsBookkeepingAndLeavesTheResultToTheHardware) {
  const StoppedClock clock{1000};
  const OstraConfigEntry entry = flowInVrf(7, 1, 5);
  write(entry);
  Listener<const Korm::Name&> told{cxHwConfig->flowEntryNotifiees(), [&](const Korm::Name& name) {
                                     EXPECT_EQ(name, "flow-7");
                                     EXPECT_EQ(sm->flowKeyToEntryHandle(entry.key()), 7U)
                                         << "the flow goes before the index entry";
                                     EXPECT_EQ(sm->vrfId(entry.key()), 5U);
                                     EXPECT_EQ(telemetry->total(), 1U);
                                   }};
  EXPECT_EQ(remove(entry), "");
  EXPECT_EQ(told.take(), 1);
  EXPECT_EQ(cxFlow(7), nullptr);
  EXPECT_FALSE(sm->flowKeyToEntryHandle(entry.key()).has_value());
  EXPECT_EQ(sm->vrfId(entry.key()), noVrf);
  EXPECT_EQ(books(5), "0 users, creator 7, deletor 7");
  EXPECT_EQ(telemetry->total(), 2U);
  sm->verify();
}

TEST_F(FlowTranslation, DeletingAVanishedFlowKeepsTheIndexEntryAndTheVrf) {
  const OstraConfigEntry entry = flowInVrf(7, 1, 5);
  write(entry);
  cxHwConfig->flowEntryDel("flow-7");
  EXPECT_EQ(remove(entry), "7 success");
  EXPECT_EQ(sm->flowKeyToEntryHandle(entry.key()), 7U);
  EXPECT_EQ(sm->vrfId(entry.key()), 5U);
  EXPECT_EQ(books(5), "1 users, creator 7, deletor none");
  EXPECT_EQ(telemetry->total(), 1U);

  // Written again, under the handle that the service gives it then, it lives on in its VRF.
  OstraConfigEntry again = entry;
  again.entryHandle = 8;
  EXPECT_EQ(write(again), "");
  EXPECT_EQ(sm->flowKeyToEntryHandle(entry.key()), 8U);
  EXPECT_EQ(books(5), "1 users, creator 7, deletor none");
  EXPECT_EQ(theFlow(8).changeCount(), 0.0);
  EXPECT_EQ(remove(again), "");
  EXPECT_EQ(books(5), "0 users, creator 7, deletor 8");
}

TEST_F(FlowTranslation, DeletingAnUnknownKeyIsAcknowledgedForNoHandle) {
  const OstraConfigEntry entry = flow(7, plainKey(1));
  sm->hasNotificationActiveIs(false);
  table->entryIs(entry);
  sm->hasNotificationActiveIs(true);
  placeCxFlow("flow-0");
  placeCxFlow("flow-7");
  EXPECT_EQ(remove(entry), "0 success");
  EXPECT_EQ(cxHwConfig->flowEntries().size(), 2U) << "not even the flow of handle 0 is touched";
  EXPECT_EQ(telemetry->total(), 0U);
}

TEST_F(FlowTranslation, AFlowVanishedFromCorvexIsInsertedAgainByTheNextWrite) {
  const OstraConfigEntry entry = flowInVrf(7, 1, 5);
  write(entry);
  write(entry);
  cxHwConfig->flowEntryDel("flow-7");
  EXPECT_EQ(write(entry), "");
  EXPECT_EQ(theFlow(7).changeCount(), 0.0) << "it did not exist, so it is no change";
  EXPECT_EQ(books(5), "1 users, creator 7, deletor none");
}

// What a write with a late fault leaves behind, as an insert and as a modify of a flow in VRF 3.
struct Survival {
  const char* what;
  std::function<void(OstraConfigEntry&)> fault;
  const char* said;
  bool vrfBooked;
  bool mapped;
};
const Survival survivals[] = {
    {"a bad match", [](auto& entry) { entry.flowKey.etherTypeIs(0x0800, 0x0FFF); }, "invalidMask",
     false, false},
    {"a bad VLAN match", [](auto& entry) { entry.flowKey.vlanIdIs(4095, 4095); },
     "raised: VlanIdOrNone", false, false},
    {"a bad traffic class", [](auto& entry) { entry.actions.uncheckedTrafficClassIs(255, true); },
     "raised: TrafficClass", false, false},
    {"a bad output port", [](auto& entry) { entry.outputPortIs(0xFFFFFFFF); },
     "invalidArgument: egress port-id", false, false},
    {"a bad VLAN action",
     [](auto& entry) {
       entry.vlanGiven = true;
       entry.vlanId = 4095;
     },
     "raised: VlanIdOrNone", false, false},
    {"a bad second traffic class",
     [](auto& entry) { entry.actions.uncheckedCpuTrafficClassIs(17, true); },
     "raised: TrafficClass", true, false},
    {"a group that is not there", [](auto& entry) { entry.groupGiven = true; },
     "notFound: Group id: 0", true, false},
    {"a priority too low", [](auto& entry) { entry.flowKey.priorityIs(-2); },
     "raised: Priority::value < -1 or > Priority::max not allowed", true, true},
    {"a priority too high", [](auto& entry) { entry.flowKey.priorityIs(65537); },
     "raised: Priority::value < -1 or > Priority::max not allowed", true, true},
};

TEST_F(FlowTranslation, AFailedInsertLeavesWhatCameBeforeTheFailure) {
  std::uint64_t handle = 10;
  for (const Survival& survival : survivals) {
    SCOPED_TRACE(survival.what);
    const auto vrf = static_cast<VrfId>(++handle);
    OstraConfigEntry entry = flowInVrf(handle, static_cast<std::uint16_t>(handle), vrf);
    survival.fault(entry);
    EXPECT_NE(write(entry).find(survival.said), std::string::npos);
    const std::string number = std::to_string(handle);
    EXPECT_EQ(books(vrf), survival.vrfBooked ? "1 users, creator " + number + ", deletor none"
                                             : std::string{neverUsed});
    EXPECT_EQ(sm->vrfId(entry.key()), survival.vrfBooked ? vrf : noVrf);
    EXPECT_EQ(dependentVrf(handle), survival.vrfBooked ? vrf : noVrf);
    EXPECT_EQ(sm->flowKeyToEntryHandle(entry.key()).value_or(0), survival.mapped ? handle : 0);
    EXPECT_EQ(cxHwConfig->flowEntries().size(), 0U);
    EXPECT_EQ(telemetry->total(), 0U);
    // Its delete finds no flow to take back, whatever it had booked.
    EXPECT_EQ(remove(entry), survival.mapped ? number + " success" : "0 success");
    EXPECT_EQ(sm->vrfId(entry.key()), survival.vrfBooked ? vrf : noVrf);
  }
  sm->verify();
}

TEST_F(FlowTranslation, AFailedModifyKeepsTheFlowAsItWas) {
  std::uint64_t handle = 10;
  for (const Survival& survival : survivals) {
    SCOPED_TRACE(survival.what);
    OstraConfigEntry faulty = flowInVrf(++handle, 1, 4);
    survival.fault(faulty);
    OstraConfigEntry good = flowInVrf(handle, 2, 3);
    good.actions.setDscpIs(1, true);
    if (faulty.flowKey == plainKey(1)) {
      faulty.flowKey = good.flowKey;
    } else {
      continue;  // another match is another flow
    }
    ASSERT_EQ(write(good), "");
    EXPECT_NE(write(faulty).find(survival.said), std::string::npos);
    EXPECT_EQ(theFlow(handle).actions().vrf(), 3U) << "Corvex has the flow as it was";
    EXPECT_TRUE(theFlow(handle).actions().has(Action::setDscp_));
    EXPECT_EQ(theFlow(handle).changeCount(), 0.0);
    EXPECT_EQ(sm->flowKeyToEntryHandle(good.key()), handle);
    EXPECT_EQ(sm->vrfId(good.key()), survival.vrfBooked ? 4U : 3U);
    EXPECT_EQ(vrfs->vrfIdRefCount(3).value_or(0), survival.vrfBooked ? 0U : 1U);
    EXPECT_EQ(vrfs->vrfIdRefCount(4).value_or(0), survival.vrfBooked ? 1U : 0U);
    EXPECT_EQ(remove(faulty), "") << "and deletes it like any other";
    EXPECT_EQ(vrfs->vrfIdRefCount(3), 0U);
    EXPECT_EQ(vrfs->vrfIdRefCount(4).value_or(0), 0U);
    EXPECT_EQ(cxFlow(handle), nullptr);
  }
}

TEST_F(FlowTranslation, OneBadEntryDoesNotStopTheNext) {
  OstraConfigEntry refused = flow(1, plainKey(1));
  refused.outputPortIs(0);
  EXPECT_NE(write(refused), "");
  EXPECT_EQ(write(flow(2, plainKey(2))), "");
  OstraConfigEntry outOfRange = flow(3, plainKey(3));
  outOfRange.flowKey.priorityIs(65537);
  EXPECT_NE(write(outOfRange), "");
  EXPECT_EQ(write(flow(4, plainKey(4))), "");
  refused.outputPortIs(2);
  EXPECT_EQ(write(refused), "") << "the same row repaired";
  EXPECT_NE(cxFlow(1), nullptr);
  EXPECT_NE(cxFlow(2), nullptr);
  EXPECT_NE(cxFlow(4), nullptr);
}

TEST_F(FlowTranslation, AWriteIsTracedStepByStep) {
  OstraConfigEntry entry = flow(7, {});
  entry.flowKey.tableTypeIs(1);
  entry.flowKey.priorityGroupTypeIs(4);
  entry.flowKey.ingressPortIs(1, 0xFFFFFFFF);
  entry.flowKey.egressPortIs(2, 0xFFFFFFFF);
  entry.flowKey.etherTypeIs(0x86DD, 0xFFFF);
  entry.flowKey.isIpPacketIs(true, true);
  entry.flowKey.ip6SrcIs(ip6, ip6Mask);
  entry.flowKey.innerL3DataIs(9, 0xFF);
  entry.outputPortIs(3);
  entry.vlanGiven = true;
  entry.vlanId = 12;
  TextTrace trace{5};
  const auto step = [](const std::string& text) {
    return "5 OstraSm::handleFlowConfigImpl" + text;
  };
  Texts expected{step(" insert flow:flow-7"),
                 step(" matchIntf:Et1"),
                 step(" match egressIntf:Et2"),
                 "5 OstraSm::validateFlowKey",
                 step(" matchIp6:2001:db8::1"),
                 step(" innerL3Data:9"),
                 step(" isIpPacketValid true. isIpPacketMask true"),
                 step(" P4 egressIntf:3 intfId:Ethernet3"),
                 step(" P4 VlanId:12 cx vlanId:12"),
                 "5 OstraSm::validateFlowAction",
                 step("maybeUpdateFlowMatch tableType 1 prioGroupType4"),
                 step("replace ethertype 34525 with l3PacketType 3"),
                 step(" inserted  flow:flow-7 EntryId: 1007")};
  write(entry);
  EXPECT_EQ(trace.take(), expected);
  entry.vlanGiven = false;
  write(entry);
  expected[8] = step(" P4 VlanId:12 cx vlanId:0");
  expected.back() = step(" modified  flow:flow-7 EntryId: 1007");
  EXPECT_EQ(trace.take(), expected);
  remove(entry);
  EXPECT_EQ(trace.take(), Texts{step(" deleting flow:flow-7")});
}

TEST_F(FlowTranslation, Ip4AddressesAreTracedInTheOrderOfTheKey) {
  OstraKey key = plainKey(1);
  ip4EtherType(key);
  key.ip4SrcIs(ip4, ip4Mask);
  key.ip4DstIs(*Korm::parseIpAddr("192.0.2.1"), ip4Mask);
  TextTrace trace{5};
  write(flow(7, key));
  const Texts texts = trace.take();
  const Texts addresses{"5 OstraSm::handleFlowConfigImpl matchIp:10.1.2.3",
                        "5 OstraSm::handleFlowConfigImpl matchIp:192.0.2.1"};
  EXPECT_NE(std::search(texts.begin(), texts.end(), addresses.begin(), addresses.end()),
            texts.end());
}

TEST_F(FlowTranslation, DeletesWithNothingToDoAreTracedAsAnomalies) {
  const OstraConfigEntry entry = flow(7, plainKey(1));
  TextTrace trace{4};
  sm->handleFlowConfig(entry.key());
  EXPECT_EQ(trace.take(), Texts{"4 OstraSm::handleFlowConfigImpl flowKey is not mapped to "
                                "entryHandle " +
                                entry.key().valueToStrep()});
  write(entry);
  cxHwConfig->flowEntryDel("flow-7");
  remove(entry);
  EXPECT_EQ(trace.take(),
            Texts{"4 OstraSm::handleFlowConfigImpl flowNameflow-7 is not present in CX"});
}

}  // namespace
}  // namespace OstraTest
