#include "FlowFixture.h"

namespace OstraTest {
namespace {

class FlowValidation : public FlowFixture {
 protected:
  FlowValidation() { start(); }

  // What came of a write of flow 7 with this key, which is taken back again.
  std::string refusal(const OstraKey& key) {
    const std::string result = write(flow(7, key));
    EXPECT_EQ(cxFlow(7) != nullptr, result.empty());
    EXPECT_EQ(sm->flowKeyToEntryHandle(key).has_value(), result.empty());
    remove(flow(7, key));
    return result;
  }
};

const Korm::IpAddr ip4 = *Korm::parseIpAddr("10.1.2.3");
const Korm::IpAddr ip4Mask = *Korm::parseIpAddr("255.255.255.0");
const Korm::IpAddr ip6 = *Korm::parseIpAddr("2001:db8::1");
const Korm::IpAddr ip6Mask = *Korm::parseIpAddr("ffff::");

// The other checks of keys, and their order, are in tests/soak.
TEST_F(FlowValidation, AnAddressOfTheOtherFamilyIsRefusedUnlessItIsAWildcard) {
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
      return refusal(key);
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

TEST_F(FlowValidation, ActionsAreCheckedInTheirOrder) {
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
