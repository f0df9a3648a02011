#include <functional>
#include <limits>
#include <type_traits>

#include "FlowFixture.h"

namespace OstraTest {
namespace {

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

// Sets a field of the match that a test expects.
template <class T>
void put(Match& match, Field field, OpenFlowTable::Masked<T> Match::*member,
         const std::type_identity_t<T>& value, const std::type_identity_t<T>& mask) {
  match.*member = {value, mask};
  match.hasIs(field, true);
}
void put(Match& match, L3PacketType type) {
  match.l3PacketType = type;
  match.hasIs(Field::l3PacketType_, true);
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
  std::function<void(Match&)> becomes;
};

const Conversion conversions[] = {
    {"nothing", [](OstraKey&) {}, [](Match&) {}},
    {"layer 2",
     [](OstraKey& key) {
       key.ingressPortIs(1, 0xFFFFFFFF);
       key.egressPortIs(2, 0xFFFFFFFF);
       key.ethSrcIs(mac, macMask);
       key.ethDstIs(Korm::EthAddr{}, macMask);
       key.vlanIdIs(4094, 4095);
       key.isIpPacketIs(false, true);
     },
     [](Match& match) {
       match.inIntfIs(Interface::IntfId{"Ethernet1"}, true);
       match.egressIntfIs(Interface::IntfId{"Ethernet2"}, true);
       put(match, Field::ethSrc_, &Match::ethSrc, mac, macMask);
       put(match, Field::ethDst_, &Match::ethDst, Korm::EthAddr{}, macMask);
       put(match, Field::vlanId_, &Match::vlanId, 4094, 4095);
       put(match, L3PacketType::nonIp_);
     }},
    {"a port without an interface, and no VLAN",
     [](OstraKey& key) {
       key.ingressPortIs(9, 0xFFFFFFFF);
       key.vlanIdIs(0, 1);
     },
     [](Match& match) {
       match.inIntfIs(Interface::IntfId{}, true);
       put(match, Field::vlanId_, &Match::vlanId, 0, 1);
     }},
    {"IPv4",
     [](OstraKey& key) {
       key.etherTypeIs(0x0800, 0xFFFF);
       key.ip4SrcIs(ip4, ip4Mask);
       key.ip4DstIs(Korm::IpAddr{}, ip4Mask);
       key.icmpTypeIs(8, 0x0F);
       key.ip4DscpIs(46, 0x3F);
       key.ip4ProtocolIs(6, 0x7F);
       key.ip4TtlIs(64, 0xFF);
     },
     [](Match& match) {
       put(match, Field::etherType_, &Match::etherType, 0x0800, 0xFFFF);
       put(match, Field::ipSrc_, &Match::ipSrc, ip4.ip4(), ip4Mask.ip4());
       put(match, Field::ipDst_, &Match::ipDst, Korm::Ip4Addr{}, ip4Mask.ip4());
       put(match, Field::icmpType_, &Match::icmpType, 8, 0x0F);
       put(match, Field::tos_, &Match::tos, 0xB8, 0xFC);
       put(match, Field::ipProto_, &Match::ipProto, 6, 0x7F);
       put(match, Field::ttl_, &Match::ttl, 64, 0xFF);
     }},
    {"IPv6",
     [](OstraKey& key) {
       key.etherTypeIs(0x86DD, 0xFFFF);
       key.ip6SrcIs(ip6, ip6Mask);
       key.ip6DstIs(ip6Mask, ip6);
       key.ip6DscpIs(0xFF, 0xC1);  // with bits that fall out of the byte
     },
     [](Match& match) {
       put(match, Field::etherType_, &Match::etherType, 0x86DD, 0xFFFF);
       put(match, Field::ip6Src_, &Match::ip6Src, ip6.ip6(), ip6Mask.ip6());
       put(match, Field::ip6Dst_, &Match::ip6Dst, ip6Mask.ip6(), ip6.ip6());
       put(match, Field::tos_, &Match::tos, 0xFC, 0x04);
     }},
    {"ARP",
     [](OstraKey& key) {
       key.etherTypeIs(0x0806, 0xFFFF);
       key.arpTargetIs(ip4, ip4Mask);
     },
     [](Match& match) {
       put(match, Field::etherType_, &Match::etherType, 0x0806, 0xFFFF);
       put(match, Field::arpTargetAddr_, &Match::arpTargetAddr, ip4.ip4(), ip4Mask.ip4());
     }},
    {"layer 4, with the inner layer-3 byte in bits 16 to 23",
     [](OstraKey& key) {
       key.l4SrcPortIs(80, 0xFFFF);
       key.l4DstPortIs(0, 0xFFF0);
       key.innerL3DataIs(0xA5, 0xF0);
     },
     [](Match& match) {
       put(match, Field::l4SrcPort_, &Match::l4SrcPort, 80, 0xFFFF);
       put(match, Field::l4DstPort_, &Match::l4DstPort, 0, 0xFFF0);
       put(match, Field::innerData_, &Match::innerData, 0xA50000, 0xF00000);
     }},
};

TEST_F(FlowTranslation, EachConstrainedFieldBecomesItsCorvexField) {
  for (const Conversion& conversion : conversions) {
    Match expected;
    conversion.becomes(expected);
    EXPECT_TRUE(matchOf(conversion.given) == expected) << conversion.what;
  }
}

TEST_F(FlowTranslation, OfFieldsThatShareACorvexFieldTheLastConstrainedOneStands) {
  for (const bool lastGiven : {true, false}) {
    const std::uint8_t mask = lastGiven ? 0x3F : 0;
    const std::uint8_t stands = lastGiven ? 3 : 2;
    Match expected;
    if (lastGiven) {
      put(expected, L3PacketType::ip_);
    }
    put(expected, Field::tos_, &Match::tos, static_cast<std::uint8_t>(stands << 2U), 0x3F << 2);
    put(expected, Field::ipProto_, &Match::ipProto, stands, 0x3F);
    put(expected, Field::ttl_, &Match::ttl, stands, 0x3F);
    const Match& match = matchOf([=](OstraKey& key) {
      key.isIpPacketIs(true, lastGiven);  // the last ones need it
      key.ip4DscpIs(1, 0x3F);
      key.ip6DscpIs(2, 0x3F);
      key.dscpIs(3, mask);
      key.ip4ProtocolIs(1, 0x3F);
      key.ip6NextHeaderIs(2, 0x3F);
      key.nextHeaderIs(3, mask);
      key.ip4TtlIs(1, 0x3F);
      key.ip6HopLimitIs(2, 0x3F);
      key.hopLimitIs(3, mask);
    });
    EXPECT_TRUE(match == expected) << lastGiven;
  }
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
  const auto matchIn = [&](std::int32_t tableType, std::uint16_t etherType, std::uint16_t mask) {
    return matchOf([=](OstraKey& key) {
      key.tableTypeIs(tableType);
      key.etherTypeIs(etherType, mask);
      key.isIpPacketIs(etherType == 0x86DD, etherType == 0x86DD);
    });
  };
  for (const auto& [etherType, packetType] :
       {std::pair{0x0800, L3PacketType::ipv4_}, std::pair{0x86DD, L3PacketType::ipv6_}}) {
    Match expected;
    put(expected, packetType);
    expected.etherType.mask = 0xFFFF;  // what is left of it
    EXPECT_TRUE(matchIn(1, static_cast<std::uint16_t>(etherType), 0xFFFF) == expected);
  }
  for (const auto& [tableType, etherType] :
       {std::pair{1, 0x0806}, {1, 0x0000}, {0, 0x0800}, {2, 0x0800}, {-1, 0x0800}}) {
    Match expected;
    put(expected, Field::etherType_, &Match::etherType, static_cast<std::uint16_t>(etherType),
        0xFFFF);
    EXPECT_TRUE(matchIn(tableType, expected.etherType.value, 0xFFFF) == expected)
        << etherType << " in a table of type " << tableType;
  }
  EXPECT_TRUE(matchIn(1, 0x0800, 0) == Match{});
}

TEST_F(FlowTranslation, ActionsAreCopiedWherePresent) {
  OpenFlowTable::Actions expected;
  expected.trafficClassIs(OpenFlowTable::TrafficClass{16}, true);
  expected.dropIs(true);
  expected.copyToCpuIs(true);
  expected.decTtlIs(true);
  expected.setDscpIs(46, true);
  expected.setEthSrcIs(mac, true);
  expected.setEthDstIs(macMask, true);
  expected.ingrMirrorIntfIs(Interface::IntfId{"Ethernet7"}, true);
  expected.egrMirrorIntfIs(Interface::IntfId{"Ethernet8"}, true);
  expected.policerIs({.rate = 1000, .burst = 64, .dropByColor = {0, 1, 1}}, true);
  expected.cpuTrafficClassIs(OpenFlowTable::TrafficClass{0}, true);
  expected.encapIs({.src = ip4.ip4(), .dst = ip4Mask.ip4(), .type = 1, .ttl = 64, .dscp = 46},
                   true);
  expected.dstMacIs(mac, true);
  expected.srcMacIs(macMask, true);
  expected.fixedBlockIs({1, 2, 3, 4, 5, 6, 7, 8}, true);
  OstraConfigEntry entry = flowInVrf(7, 1, 5);
  entry.actions = expected;
  entry.outputPortIs(2);
  entry.vlanGiven = true;
  entry.vlanId = 4094;
  EXPECT_EQ(write(entry), "");
  expected.outputIntfIs(Interface::IntfId{"Ethernet2"}, true);
  expected.vrfIs(5, true);
  expected.vlanIdIs(Bridging::VlanIdOrNone{4094}, true);
  EXPECT_TRUE(theFlow(7).actions() == expected);

  // Values without the action that they are for.
  OstraConfigEntry absent = flow(8, plainKey(2));
  absent.actions.setDscpIs(46, false);
  absent.actions.uncheckedIs<OpenFlowTable::Action::trafficClass_>(99, false);
  absent.actions.uncheckedIs<OpenFlowTable::Action::cpuTrafficClass_>(99, false);
  absent.actions.policerIs({.rate = 1}, false);
  absent.outputPort = 0;
  absent.vrfId = 5;
  absent.vlanId = 5000;
  absent.memberId = 5;
  absent.groupId = 3;
  absent.actions.groupIs(9, true);  // the entry's own reference is what counts
  EXPECT_EQ(write(absent), "");
  EXPECT_TRUE(theFlow(8).actions() == OpenFlowTable::Actions{});
}

TEST_F(FlowTranslation, AnInsertHandsOverTheWholeFlowAndAModifyReplacesItInPlace) {
  OstraConfigEntry entry = flow(0xFFFFFFFFFFFFFFFF, plainKey(1));
  entry.entryId = 77;
  entry.flowKey.priorityIs(-1);
  entry.flowKey.tableTypeIs(1);
  entry.flowKey.priorityGroupTypeIs(4);
  entry.actions.dropIs(true);
  {
    Listener<const Korm::Name&> stamps{cxHwConfig->flowEntryNotifiees(), [&](const Korm::Name&) {
                                         EXPECT_EQ(telemetry->total(), 0U) << "stamped later";
                                       }};
    EXPECT_EQ(write(entry), "");
    EXPECT_EQ(stamps.take(), 1);
  }
  const auto* const made = cxHwConfig->flowEntry("flow-18446744073709551615");
  ASSERT_NE(made, nullptr);
  EXPECT_TRUE(made->actions() == entry.actions);
  EXPECT_EQ(made->priority().value(), -1);
  EXPECT_EQ(made->tableType(), TableType::l3_);
  EXPECT_EQ(made->priorityGroupType(), 4U);
  EXPECT_EQ(made->entryId(), 77U);
  EXPECT_EQ(made->cookie(), 0U);
  EXPECT_EQ(made->idleTimeout() + made->hardTimeout(), 0.0);
  EXPECT_FALSE(made->sendFlowRemoved());
  EXPECT_TRUE(made->persistent());
  EXPECT_EQ(made->changeCount(), 0.0) << "an insert is no change";
  const auto stamp = telemetry->newest(entry.entryHandle, P4Runtime::TelemetryTimestampType{2});
  ASSERT_TRUE(stamp.has_value());
  EXPECT_EQ(stamp->time, now);

  now = 1010.5;
  Listener<const Korm::Name&> told{cxHwConfig->flowEntryNotifiees()};
  entry.actions = {};
  entry.actions.setDscpIs(1, true);
  entry.entryId = 9;
  EXPECT_EQ(write(entry), "");
  EXPECT_EQ(told.take(), 1) << "no delete and re-add";
  ASSERT_EQ(cxFlow(entry.entryHandle), made);
  EXPECT_TRUE(made->actions() == entry.actions);
  EXPECT_EQ(made->entryId(), 9U);
  EXPECT_EQ(made->changeCount(), 1010.5);
  EXPECT_EQ(telemetry->total(), 2U);
}

TEST_F(FlowTranslation, ADeleteTakesTheFlowAndItsBookkeepingAndLeavesTheResultToTheHardware) {
  const OstraConfigEntry entry = flowInVrf(7, 1, 5);
  write(entry);
  Listener<const Korm::Name&> told{cxHwConfig->flowEntryNotifiees(), [&](const Korm::Name& name) {
                                     EXPECT_EQ(name, "flow-7");
                                     EXPECT_EQ(sm->flowKeyToEntryHandle(entry.key()), 7U)
                                         << "the flow goes before the index entry";
                                     EXPECT_EQ(sm->vrfId(entry.key()), 5U);
                                     EXPECT_EQ(telemetry->total(), 1U);
                                   }};
  now = 200;
  EXPECT_EQ(remove(entry), "");
  EXPECT_EQ(told.take(), 1);
  EXPECT_EQ(cxFlow(7), nullptr);
  EXPECT_FALSE(sm->flowKeyToEntryHandle(entry.key()).has_value());
  EXPECT_EQ(sm->vrfId(entry.key()), noVrf);
  EXPECT_EQ(books(5), "0 users, creator 7, deletor 7");
  EXPECT_EQ(telemetry->total(), 2U);
  EXPECT_EQ(telemetry->newest(7, P4Runtime::TelemetryTimestampType{2})->time, 200.0);
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
}

}  // namespace
}  // namespace OstraTest
