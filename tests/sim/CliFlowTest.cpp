// Flow entries in the command language, from the words to the Corvex flow that comes of them.

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CliProgram.h"

namespace {

using CliTest::Json;
using CliTest::simJson;
using CliTest::simJsonLines;
using testing::HasSubstr;

struct Translation {
  std::string words;
  std::string json;
};

// Plays one insert for each, on switches of their own, and compares a member of the flow that comes of it.
void expectTranslations(const std::vector<Translation>& cases, const std::string& before,
                        const std::string& after, const char* member) {
  for (const Translation& one : cases) {
    std::string script = "port 1 Ethernet1\nport 2 Ethernet2\n";
    script.append(before).append(one.words).append(after).append("\nshow flows\n");
    const auto lines = simJson(script);
    ASSERT_EQ(lines.size(), 2U) << one.words;
    EXPECT_EQ(lines[0]["state"], "done") << one.words << lines[0];
    EXPECT_EQ(lines[0]["code"], 0) << one.words << lines[0];
    ASSERT_EQ(lines[1]["flows"].size(), 1U) << one.words;
    EXPECT_EQ(lines[1]["flows"][0][member].dump(), one.json) << one.words;
  }
}

TEST(CliFlow, EveryMatchFieldIsReadAndShown) {
  const std::vector<Translation> cases{
      {"ingress_port=1", R"({"inIntf":"Ethernet1"})"},
      {"egress_port=0x2", R"({"egressIntf":"Ethernet2"})"},
      {"hdr.ethernet.src_addr=02:00:00:00:00:0A",
       R"({"ethSrc":{"value":"02:00:00:00:00:0a","mask":"ff:ff:ff:ff:ff:ff"}})"},
      {"hdr.ethernet.dst_addr=02:00:00:00:00:00&ff:00:00:00:00:00",
       R"({"ethDst":{"value":"02:00:00:00:00:00","mask":"ff:00:00:00:00:00"}})"},
      {"hdr.ethernet.ether_type=0x88CC", R"({"etherType":{"value":35020,"mask":65535}})"},
      {"local_metadata.vlan_id=4094", R"({"vlanId":{"value":4094,"mask":4095}})"},
      {"local_metadata.vlan_id=100&0xff", R"({"vlanId":{"value":100,"mask":255}})"},
      {"hdr.ipv4_base.src_addr=10.0.0.0/8 hdr.ethernet.ether_type=2048",
       R"({"etherType":{"value":2048,"mask":65535},"ipSrc":{"value":"10.0.0.0","mask":"255.0.0.0"}})"},
      {"hdr.ethernet.ether_type=0x0800 hdr.ipv4_base.dst_addr=10.0.0.1&255.0.0.255",
       R"({"etherType":{"value":2048,"mask":65535},"ipDst":{"value":"10.0.0.1","mask":"255.0.0.255"}})"},
      {"hdr.ethernet.ether_type=0x0806 hdr.arp.target_proto_addr=192.0.2.1",
       R"({"etherType":{"value":2054,"mask":65535},"arpTargetAddr":{"value":"192.0.2.1","mask":"255.255.255.255"}})"},
      {"hdr.ethernet.ether_type=0x86dd hdr.ipv6_base.src_addr=2001:DB8:0:0::/33",
       R"({"etherType":{"value":34525,"mask":65535},"ip6Src":{"value":"2001:db8::","mask":"ffff:ffff:8000::"}})"},
      {"hdr.ethernet.ether_type=0x86dd hdr.ipv6_base.dst_addr=::1&::ffff",
       R"({"etherType":{"value":34525,"mask":65535},"ip6Dst":{"value":"::1","mask":"::ffff"}})"},
      {"hdr.ipv4_base.dscp=46", R"({"tos":{"value":184,"mask":252}})"},
      {"hdr.ipv6_base.dscp=46&0x30", R"({"tos":{"value":184,"mask":192}})"},
      {"hdr.ipv4_base.protocol=6", R"({"ipProto":{"value":6,"mask":255}})"},
      {"hdr.ipv6_base.next_header=17", R"({"ipProto":{"value":17,"mask":255}})"},
      {"hdr.ipv4_base.ttl=1", R"({"ttl":{"value":1,"mask":255}})"},
      {"hdr.ipv6_base.hop_limit=255&0x80", R"({"ttl":{"value":255,"mask":128}})"},
      {"hdr.ethernet.ether_type=0x0800 hdr.icmp.type=8",
       R"({"etherType":{"value":2048,"mask":65535},"icmpType":{"value":8,"mask":255}})"},
      {"local_metadata.isIpPacket=true", R"({"l3PacketType":0})"},
      {"local_metadata.isIpPacket=false&true", R"({"l3PacketType":1})"},
      {"local_metadata.isIpPacket=true&false", R"({})"},
      {"local_metadata.isIpPacket=true local_metadata.dscp=1 local_metadata.next_header=2 "
       "local_metadata.hop_limit=3",
       R"({"l3PacketType":0,"tos":{"value":4,"mask":252},"ipProto":{"value":2,"mask":255},"ttl":{"value":3,"mask":255}})"},
      {"local_metadata.l4_src_port=65535 local_metadata.l4_dst_port=0x50&0xfff0",
       R"({"l4SrcPort":{"value":65535,"mask":65535},"l4DstPort":{"value":80,"mask":65520}})"},
      {"local_metadata.inner_l3_data=0x45", R"({"innerData":{"value":4521984,"mask":16711680}})"},
      {"hdr.ipv4_base.src_addr=10.0.0.0/0 local_metadata.l4_src_port=7&0", R"({})"},
      {"", R"({})"},
  };
  expectTranslations(cases, "insert flow priority=1 ", " -> drop", "match");
}

TEST(CliFlow, EveryActionIsReadAndShown) {
  const std::vector<Translation> cases{
      {"output=2", R"({"outputIntf":"Ethernet2"})"},
      {"vrf=5", R"({"vrf":5})"},
      {"vlan=4094", R"({"vlanId":4094})"},
      {"traffic-class=16 cpu-traffic-class=0", R"({"trafficClass":16,"cpuTrafficClass":0})"},
      {"mirror-ingress=Mirror1 mirror-egress=Mirror2",
       R"({"ingrMirrorIntf":"Mirror1","egrMirrorIntf":"Mirror2"})"},
      {"dec-ttl copy-to-cpu drop", R"({"drop":true,"copyToCpu":true,"decTtl":true})"},
      {"set-dscp=0x2e", R"({"setDscp":46})"},
      {"set-eth-dst=02:00:00:00:00:02 set-eth-src=02:00:00:00:00:01",
       R"({"setEthSrc":"02:00:00:00:00:01","setEthDst":"02:00:00:00:00:02"})"},
      {"policer=64000,8000,drop-red,drop-green",
       R"({"policer":{"rate":64000,"burst":8000,"drop":["green","red"]}})"},
      {"policer=0xffffffffffffffff,0",
       R"({"policer":{"rate":18446744073709551615,"burst":0,"drop":[]}})"},
      {"", R"({})"},
  };
  expectTranslations(cases, "insert flow priority=1 -> ", "", "actions");
}

TEST(CliFlow, PlacementPriorityAndChangeCountAreShown) {
  const auto lines = simJsonLines(
      "insert flow priority=-1 -> drop\n"
      "insert flow priority=65536 table=14 table-type=1 priority-group=4294967295 -> drop\n"
      "modify flow priority=-1 -> copy-to-cpu\n"
      "show flows\n");
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(
      lines[3],
      R"({"type":"flows","flows":[{"name":"flow-1","entryId":1,"priority":-1,"priorityGroup":0,)"
      R"("tableType":0,"changeCount":3,"match":{},"actions":{"copyToCpu":true}},)"
      R"({"name":"flow-2","entryId":2,"priority":65536,"priorityGroup":4294967295,)"
      R"("tableType":1,"changeCount":0,"match":{},"actions":{"drop":true}}]})");
}

TEST(CliFlow, WhatTheLibraryChecksReachesIt) {
  const auto lines = simJson(
      "insert flow priority=65537 -> drop\n"
      "insert flow priority=-2147483648 -> drop\n"
      "insert flow priority=1 -> vlan=65535\n"
      "insert flow priority=2 -> traffic-class=255\n"
      "insert flow priority=3 local_metadata.vlan_id=4095 -> drop\n"
      "insert flow priority=4 local_metadata.dscp=46 -> drop\n"
      "insert flow priority=5 ingress_port=0xFFFFFF00 -> drop\n");
  ASSERT_EQ(lines.size(), 7U);
  for (std::size_t at = 0; at < 5; ++at) {
    EXPECT_EQ(lines[at]["state"], "failed") << lines[at];
    EXPECT_THAT(lines[at]["message"], HasSubstr("not allowed"));
    EXPECT_FALSE(lines[at].contains("code"));
  }
  EXPECT_EQ(lines[5]["state"], "done");
  EXPECT_EQ(lines[5]["code"], 14);
  EXPECT_THAT(lines[5]["message"], HasSubstr("local_metadata.dscp"));
  EXPECT_EQ(lines[6]["code"], 15);
}

TEST(CliFlow, TheServiceRejectsKeysThatAreThereOrNot) {
  const auto lines = simJson(
      "insert flow priority=1 -> drop\n"
      "insert flow priority=1 -> copy-to-cpu\n"
      "modify flow priority=2 -> drop\n"
      "delete flow priority=2\n"
      "delete flow priority=1\n"
      "insert flow table=1 priority=1 -> drop\n");
  ASSERT_EQ(lines.size(), 6U);
  for (const std::size_t rejected : {1U, 2U, 3U}) {
    EXPECT_EQ(lines[rejected]["state"], "rejected") << lines[rejected];
    EXPECT_FALSE(lines[rejected].contains("handle"));
    EXPECT_FALSE(lines[rejected].contains("code"));
    EXPECT_NE(lines[rejected]["message"], "");
  }
  EXPECT_EQ(
      lines[4].dump(),
      R"({"type":"result","op":"delete","kind":"flow","handle":1,"state":"done","code":0,"message":""})");
  EXPECT_EQ(lines[5]["handle"], 2);
}

}  // namespace
