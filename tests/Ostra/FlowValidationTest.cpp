#include "FlowFixture.h"

namespace OstraTest {
namespace {

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

const std::string etherTypeName = "hdr.ethernet.ether_type";

std::string undefined(const std::string& field) {
  return "undefinedBehavior: the combination of " + etherTypeName + " and " + field +
         " has no defined behavior";
}

// A field that needs IP packets, or an ether type of its own. Which combinations are allowed is in
// tests/soak.
struct Dependent {
  std::string name;
  bool needsEtherType;
  std::function<void(OstraKey&)> constrain;
};
const Dependent dependents[] = {
    {"hdr.ipv6_base.dst_addr", true, [](OstraKey& key) { key.ip6DstIs(ip6, ip6Mask); }},
    {"hdr.ipv6_base.src_addr", true, [](OstraKey& key) { key.ip6SrcIs(ip6, ip6Mask); }},
    {"hdr.ipv4_base.dst_addr", true, [](OstraKey& key) { key.ip4DstIs(ip4, ip4Mask); }},
    {"hdr.ipv4_base.src_addr", true, [](OstraKey& key) { key.ip4SrcIs(ip4, ip4Mask); }},
    {"hdr.arp.target_proto_addr", true, [](OstraKey& key) { key.arpTargetIs(ip4, ip4Mask); }},
    {"hdr.icmp.type", true, [](OstraKey& key) { key.icmpTypeIs(8, 0x01); }},
    {"local_metadata.dscp", false, [](OstraKey& key) { key.dscpIs(46, 0x3F); }},
    {"local_metadata.hop_limit", false, [](OstraKey& key) { key.hopLimitIs(64, 0xFF); }},
    {"local_metadata.next_header", false, [](OstraKey& key) { key.nextHeaderIs(6, 0xFF); }},
};

// Gives the field of this name a mask of zero.
void openField(OstraKey& key, const std::string& wanted) {
  key.forEachField([&wanted](std::string_view name, const auto& field, auto put) {
    if (name == wanted) {
      put(field.value, {});
    }
  });
}

TEST_F(FlowValidation, AnAddressOfTheOtherFamilyIsRefusedUnlessItIsAWildcard) {
  const auto expectFamily = [this](const char* name, std::uint16_t etherType, bool isIp6) {
    const auto& [value, mask] = isIp6 ? std::pair{ip6, ip6Mask} : std::pair{ip4, ip4Mask};
    const auto& [other, otherMask] = isIp6 ? std::pair{ip4, ip4Mask} : std::pair{ip6, ip6Mask};
    const std::string error = std::string{"invalidArgument: "} + name + " should be " +
                              (isIp6 ? "an IPv6" : "an IPv4") + " address";
    const auto came = [&](const Korm::IpAddr& given, const Korm::IpAddr& givenMask) {
      OstraKey key;
      key.etherTypeIs(etherType, 0xFFFF);
      key.forEachField([&](std::string_view field, const auto& is, auto put) {
        if constexpr (std::is_same_v<std::remove_cvref_t<decltype(is.value)>, Korm::IpAddr>) {
          if (field == name) {
            put(given, givenMask);
          }
        }
      });
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
  expectFamily("hdr.ipv4_base.src_addr", 0x0800, false);
  expectFamily("hdr.ipv4_base.dst_addr", 0x0800, false);
  expectFamily("hdr.arp.target_proto_addr", 0x0806, false);
  expectFamily("hdr.ipv6_base.src_addr", 0x86DD, true);
  expectFamily("hdr.ipv6_base.dst_addr", 0x86DD, true);
}

// The faults that one entry can have, in the order in which they are found; each with what ends it.
struct Fault {
  std::string said;
  std::function<void(OstraConfigEntry&)> repair;
};

const std::string portRange = " is outside 1 to 4294967039";
const std::string trafficClassRange =
    "raised: TrafficClass::value < TrafficClass::min or > TrafficClass::invalid not allowed";

const Fault firstFaults[] = {
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
    {undefined("local.metadata.isIpPacket"), [](auto& entry) { entry.flowKey.etherTypeIs(0, 0); }},
};
const Fault laterFaults[] = {
    {"raised: VlanIdOrNone::value > 4094 not allowed",
     [](auto& entry) { entry.flowKey.vlanIdIs(4094, 4096); }},
    {"raised: VlanIdOrAnyOrNone::value > 4095 not allowed",
     [](auto& entry) { entry.flowKey.vlanIdIs(4094, 4095); }},
    {trafficClassRange,
     [](OstraConfigEntry& entry) {
       entry.actions.uncheckedIs<OpenFlowTable::Action::trafficClass_>(16, true);
     }},
    {"invalidArgument: egress port-id: port id 0" + portRange,
     [](auto& entry) { entry.outputPortIs(2); }},
    {"raised: VlanIdOrNone::value > 4094 not allowed", [](auto& entry) { entry.vlanId = 4094; }},
};
const Fault faultsBehindTheVrf[] = {
    {trafficClassRange,
     [](OstraConfigEntry& entry) {
       entry.actions.uncheckedIs<OpenFlowTable::Action::cpuTrafficClass_>(16, true);
     }},
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
    field.constrain(key);
  }
  key.vlanIdIs(4095, 4096);
  key.priorityIs(65537);
  entry.actions.uncheckedIs<OpenFlowTable::Action::trafficClass_>(17, true);
  entry.outputPortIs(0);
  entry.vrfGiven = true;
  entry.vrfId = 5;
  entry.vlanGiven = true;
  entry.vlanId = 4097;  // no VLAN id, though its lower bits are one
  entry.actions.uncheckedIs<OpenFlowTable::Action::cpuTrafficClass_>(17, true);
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
  for (const Fault& fault : firstFaults) {
    ASSERT_EQ(said(false, false), fault.said);
    fault.repair(entry);
  }
  for (const Dependent& field : dependents) {
    ASSERT_EQ(said(false, false),
              field.needsEtherType
                  ? undefined(field.name)
                  : "notAllowed: " + field.name +
                        " is not allowed because ether type is ignored and isIpPacket is false");
    openField(entry.flowKey, field.name);
  }
  for (const Fault& fault : laterFaults) {
    ASSERT_EQ(said(false, false), fault.said);
    fault.repair(entry);
  }
  EXPECT_EQ(books(5), neverUsed) << "so far nothing was left behind";
  for (const Fault& fault : faultsBehindTheVrf) {
    ASSERT_EQ(said(true, fault.said.find("Priority") != std::string::npos), fault.said);
    EXPECT_EQ(books(5), "1 users, creator 7, deletor none");
    EXPECT_EQ(cxHwConfig->flowEntries().size(), 0U);
    fault.repair(entry);
  }
  EXPECT_EQ(said(true, true), "");
  EXPECT_EQ(theFlow(7).priority().value(), 65536);
}

}  // namespace
}  // namespace OstraTest
