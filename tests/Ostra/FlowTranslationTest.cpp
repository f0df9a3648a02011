// What Corvex is told of a flow, and when, what is refused, and what its VRF's books owe to others.
// How every match and action is translated is in tests/soak.

#include "FlowFixture.h"

namespace OstraTest {
namespace {

using OpenFlowTable::Match;

class FlowTranslation : public FlowFixture {
 protected:
  FlowTranslation() { start(); }
};

const Korm::IpAddr ip4 = *Korm::parseIpAddr("10.1.2.3");
const Korm::IpAddr ip4Mask = *Korm::parseIpAddr("255.255.255.0");
const Korm::IpAddr ip6 = *Korm::parseIpAddr("2001:db8::1");
const Korm::IpAddr ip6Mask = *Korm::parseIpAddr("ffff::");

// What a controller cannot write, but a row can hold.
TEST_F(FlowTranslation, BitsOutsideAFieldAndAddressesWithoutAFamilyAreIgnored) {
  OstraConfigEntry entry = flow(7, OstraKey{});
  entry.flowKey.etherTypeIs(0x0800, 0xFFFF);
  entry.flowKey.ip4DstIs(Korm::IpAddr{}, ip4);
  entry.flowKey.ip6DscpIs(0xFF, 0xC1);
  EXPECT_EQ(write(entry), "");
  Match match;
  match.etherType = {0x0800, 0xFFFF};
  match.ipDst = {Korm::Ip4Addr{}, ip4.ip4()};
  match.tos = {0xFC, 0x04};
  for (const auto field : {Match::Field::etherType_, Match::Field::ipDst_, Match::Field::tos_}) {
    match.hasIs(field, true);
  }
  EXPECT_TRUE(theFlow(7).match() == match);

  OstraConfigEntry absent = flow(8, OstraKey{});
  absent.flowKey.forEachField([](std::string_view, const auto& field, auto put) {
    using T = decltype(field.value);
    if constexpr (std::is_same_v<T, Korm::IpAddr>) {
      put(ip4, T{});
    } else if constexpr (std::is_same_v<T, Korm::EthAddr>) {
      put(T::allOnes(), T{});
    } else {
      put(std::numeric_limits<T>::max(), T{});
    }
  });
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
  EXPECT_TRUE(theFlow(8).match() == Match{});
  EXPECT_TRUE(theFlow(8).actions() == OpenFlowTable::Actions{});
}

TEST_F(FlowTranslation, EachWriteIsNotifiedOnceAndThenTimestamped) {
  std::size_t stamps = 0;
  OstraConfigEntry entry = flowInVrf(0xFFFFFFFFFFFFFFFF, 1, 5);
  Listener<const Korm::Name&> told{
      cxHwConfig->flowEntryNotifiees(), [&](const Korm::Name& name) {
        EXPECT_EQ(name, "flow-18446744073709551615");
        EXPECT_EQ(telemetry->total(), stamps) << "stamped later";
        EXPECT_EQ(sm->vrfId(entry.key()), 5U);
        if (stamps == 2) {
          EXPECT_EQ(sm->flowKeyToEntryHandle(entry.key()), entry.entryHandle)
              << "the flow goes before the index entry";
        }
      }};
  const auto expectStamp = [&] {
    EXPECT_EQ(told.take(), 1);
    EXPECT_EQ(telemetry->total(), ++stamps);
    const auto stamp = telemetry->newest(entry.entryHandle, P4Runtime::TelemetryTimestampType{2});
    ASSERT_TRUE(stamp.has_value());
    EXPECT_EQ(stamp->time, now);
  };
  EXPECT_EQ(write(entry), "");
  expectStamp();
  const auto* const made = cxFlow(entry.entryHandle);
  now = 1010.5;
  EXPECT_EQ(write(entry), "");
  expectStamp();
  EXPECT_EQ(cxFlow(entry.entryHandle), made) << "no delete and re-add";
  now = 2000;
  EXPECT_EQ(remove(entry), "");
  expectStamp();
  EXPECT_EQ(sm->vrfId(entry.key()), noVrf);
}

TEST_F(FlowTranslation, VrfsAreBookedOutsideABatchAndWithoutACount) {
  write(flowInVrf(1, 1, 5));
  EXPECT_TRUE(isDependent(1));
  table->entryIs(flowInVrf(2, 2, 6));
  EXPECT_EQ(books(6), "1 users, creator 2, deletor none");
  EXPECT_EQ(dependentVrf(2), 6U);
  EXPECT_FALSE(isDependent(2)) << "outside a batch there is nothing to hold back";
  vrfs->vrfIdRefCountDel(6);
  remove(flow(2, plainKey(2)));
  EXPECT_EQ(books(6), "0 users, creator 2, deletor none") << "no count, so not the last";
}

TEST_F(FlowTranslation, IndexesKeepVrfAndHandleApart) {
  for (std::uint16_t number = 1; number <= 2; ++number) {
    sm->vrfIdIs(plainKey(number), number + 10U);
    sm->flowKeyToEntryHandleIs(plainKey(number), number + 20U);
  }
  EXPECT_EQ(sm->vrfIdDel(plainKey(1)), 11U);
  EXPECT_EQ(sm->vrfIdDel(plainKey(1)), noVrf);
  EXPECT_EQ(sm->flowKeyToEntryHandleDel(plainKey(2)), 22U);
  EXPECT_EQ(sm->flowKeyToEntryHandleDel(plainKey(2)), 0U);
  sm->vrfIdDelAll();
  sm->verify();
  EXPECT_EQ(sm->vrfId(plainKey(2)), noVrf);
  EXPECT_EQ(sm->flowKeyToEntryHandle(plainKey(1)), 21U);
  sm->vrfIdIs(plainKey(1), 3);
  sm->flowKeyToEntryHandleDelAll();
  sm->verify();
  EXPECT_EQ(sm->vrfId(plainKey(1)), 3U);
}

// The other checks of keys, and their order, are in tests/soak.
TEST_F(FlowTranslation, AnAddressOfTheOtherFamilyIsRefusedUnlessItIsAWildcard) {
  const auto expectFamily = [this](const char* name, auto put, std::uint16_t etherType,
                                   bool isIp6) {
    const auto& [value, mask] = isIp6 ? std::pair{ip6, ip6Mask} : std::pair{ip4, ip4Mask};
    const auto& [other, otherMask] = isIp6 ? std::pair{ip4, ip4Mask} : std::pair{ip6, ip6Mask};
    const std::string error = std::string{"7 invalidArgument: "} + name + " should be " +
                              (isIp6 ? "an IPv6" : "an IPv4") + " address";
    const auto came = [&](const Korm::IpAddr& given, const Korm::IpAddr& givenMask) {
      OstraKey key;
      key.etherTypeIs(etherType, 0xFFFF);
      (key.*put)(given, givenMask);
      const std::string result = write(flow(7, key));
      EXPECT_EQ(cxFlow(7) != nullptr, result.empty());
      EXPECT_EQ(sm->flowKeyToEntryHandle(key).has_value(), result.empty());
      remove(flow(7, key));
      return result;
    };
    EXPECT_EQ(came(value, mask), "");
    EXPECT_EQ(came(Korm::IpAddr{}, mask), "") << "no family stands for zero";
    EXPECT_EQ(came(other, otherMask), error);
    EXPECT_EQ(came(other, mask), error);
    EXPECT_EQ(came(value, otherMask), error);
    EXPECT_EQ(came(other, isIp6 ? Korm::IpAddr{Korm::Ip4Addr{}} : Korm::IpAddr{Korm::Ip6Addr{}}),
              "");
  };
  expectFamily("hdr.ipv4_base.src_addr", &OstraKey::ip4SrcIs, 0x0800, false);
  expectFamily("hdr.ipv4_base.dst_addr", &OstraKey::ip4DstIs, 0x0800, false);
  expectFamily("hdr.arp.target_proto_addr", &OstraKey::arpTargetIs, 0x0806, false);
  expectFamily("hdr.ipv6_base.src_addr", &OstraKey::ip6SrcIs, 0x86DD, true);
  expectFamily("hdr.ipv6_base.dst_addr", &OstraKey::ip6DstIs, 0x86DD, true);
}

TEST_F(FlowTranslation, ActionsAreCheckedInTheirOrder) {
  OstraConfigEntry entry = flow(7, plainKey(1));
  entry.actions.uncheckedIs<OpenFlowTable::Action::trafficClass_>(17, true);
  entry.outputPortIs(0);
  entry.vlanGiven = true;
  entry.vlanId = 4097;  // no VLAN id, though its lower bits are one
  EXPECT_THAT(write(entry), StartsWith("raised: TrafficClass::value"));
  entry.actions.uncheckedIs<OpenFlowTable::Action::trafficClass_>(16, true);
  EXPECT_THAT(write(entry), HasSubstr("egress port-id: port id 0 "));
  entry.outputPortIs(2);
  EXPECT_EQ(write(entry), "raised: VlanIdOrNone::value > 4094 not allowed");
}

}  // namespace
}  // namespace OstraTest
