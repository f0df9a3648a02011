// Flow entries in the command language, from the words to the Corvex flow that comes of them.

#include "CliProgram.h"

namespace {

using namespace CliTest;

struct Translation {
  std::string words;
  std::string json;
};

// Plays one insert for each, and compares a member of the flow that comes of it.
void expectTranslations(const std::vector<Translation>& cases, const std::string& before,
                        const char* member, const std::string& after) {
  std::string script = "port 1 Ethernet1\nport 2 Ethernet2\n";
  for (std::size_t at = 0; at < cases.size(); ++at) {
    script.append("insert flow priority=").append(std::to_string(at));
    script.append(before).append(cases[at].words).append(after);
  }
  const Json flows = simJson(script + "show flows\n").back()["flows"];
  ASSERT_EQ(flows.size(), cases.size());
  for (std::size_t at = 0; at < cases.size(); ++at) {
    EXPECT_EQ(flows[at][member].dump(), cases[at].json) << cases[at].words;
  }
}

TEST(CliFlow, EveryMatchFieldIsReadAndShown) {
  expectTranslations(
      {{"ingress_port=1 egress_port=0x2 local_metadata.vlan_id=4094 "
        "hdr.ethernet.src_addr=02:00:00:00:00:0A "
        "hdr.ethernet.dst_addr=02:00:00:00:00:00&ff:00:00:00:00:00",
        R"({"inIntf":"Ethernet1","egressIntf":"Ethernet2",)"
        R"("ethSrc":{"value":"02:00:00:00:00:0a","mask":"ff:ff:ff:ff:ff:ff"},)"
        R"("ethDst":{"value":"02:00:00:00:00:00","mask":"ff:00:00:00:00:00"},)"
        R"("vlanId":{"value":4094,"mask":4095}})"},
       {"hdr.ethernet.ether_type=0x0806 hdr.arp.target_proto_addr=192.0.2.1",
        R"({"etherType":{"value":2054,"mask":65535},)"
        R"("arpTargetAddr":{"value":"192.0.2.1","mask":"255.255.255.255"}})"},
       {"hdr.ipv4_base.src_addr=10.0.0.0/8 hdr.ethernet.ether_type=2048 "
        "hdr.ipv4_base.dst_addr=10.0.0.1&255.0.0.255 hdr.icmp.type=8",
        R"({"etherType":{"value":2048,"mask":65535},)"
        R"("ipSrc":{"value":"10.0.0.0","mask":"255.0.0.0"},)"
        R"("ipDst":{"value":"10.0.0.1","mask":"255.0.0.255"},"icmpType":{"value":8,"mask":255}})"},
       {"hdr.ethernet.ether_type=0x86dd hdr.ipv6_base.src_addr=2001:DB8:0:0::/33 "
        "hdr.ipv6_base.dst_addr=::1&::ffff",
        R"({"etherType":{"value":34525,"mask":65535},)"
        R"("ip6Src":{"value":"2001:db8::","mask":"ffff:ffff:8000::"},)"
        R"("ip6Dst":{"value":"::1","mask":"::ffff"}})"},
       {"hdr.ipv4_base.dscp=46 hdr.ipv4_base.protocol=6 hdr.ipv4_base.ttl=1",
        R"({"tos":{"value":184,"mask":252},"ipProto":{"value":6,"mask":255},)"
        R"("ttl":{"value":1,"mask":255}})"},
       {"hdr.ipv6_base.dscp=46&0x30 hdr.ipv6_base.next_header=17 hdr.ipv6_base.hop_limit=255&0x80",
        R"({"tos":{"value":184,"mask":192},"ipProto":{"value":17,"mask":255},)"
        R"("ttl":{"value":255,"mask":128}})"},
       {"local_metadata.isIpPacket=true local_metadata.dscp=1 local_metadata.next_header=2 "
        "local_metadata.hop_limit=3",
        R"({"l3PacketType":0,"tos":{"value":4,"mask":252},"ipProto":{"value":2,"mask":255},)"
        R"("ttl":{"value":3,"mask":255}})"},
       {"local_metadata.isIpPacket=false&true local_metadata.inner_l3_data=0x45 "
        "local_metadata.l4_src_port=65535 local_metadata.l4_dst_port=0x50&0xfff0",
        R"({"l3PacketType":1,"l4SrcPort":{"value":65535,"mask":65535},)"
        R"("l4DstPort":{"value":80,"mask":65520},"innerData":{"value":4521984,"mask":16711680}})"},
       {"local_metadata.isIpPacket=true&false hdr.ipv4_base.src_addr=10.0.0.0/0 "
        "local_metadata.l4_src_port=7&0",
        "{}"}},
      " ", "match", " -> drop\n");
}

TEST(CliFlow, EveryActionIsReadAndShown) {
  expectTranslations(
      {{"output=2 vrf=5 vlan=4094 traffic-class=16 cpu-traffic-class=0 dec-ttl copy-to-cpu drop",
        R"({"trafficClass":16,"drop":true,"copyToCpu":true,"decTtl":true,"outputIntf":"Ethernet2",)"
        R"("vrf":5,"vlanId":4094,"cpuTrafficClass":0})"},
       {"mirror-ingress=Mirror1 mirror-egress=Mirror2 set-dscp=0x2e "
        "set-eth-dst=02:00:00:00:00:02 set-eth-src=02:00:00:00:00:01 "
        "policer=64000,0xffffffffffffffff,drop-red,drop-green",
        R"({"setDscp":46,"setEthSrc":"02:00:00:00:00:01","setEthDst":"02:00:00:00:00:02",)"
        R"("ingrMirrorIntf":"Mirror1","egrMirrorIntf":"Mirror2",)"
        R"("policer":{"rate":64000,"burst":18446744073709551615,"drop":["green","red"]}})"},
       {"", "{}"}},
      " -> ", "actions", "\n");
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

// Explanations, hints, audits and pending writes, as people and programs see them.

const std::string setup =
    "port 1 Ethernet1\nencap 9 src=192.0.2.1 dst=198.51.100.7\n"
    "insert member 5 port=1 encap=9\nhw manual\ninsert group 4 members=5\n";

TEST(CliExplain, ARefusalComesWithAHintOfWhatWouldBeAccepted) {
  const std::pair<std::string, std::string> cases[] = {
      {"hdr.ipv4_base.dst_addr=10.0.0.0/8 -> drop",
       "hdr.ipv4_base.dst_addr needs hdr.ethernet.ether_type=0x0800"},
      {"hdr.arp.target_proto_addr=10.0.0.1 -> drop",
       "hdr.arp.target_proto_addr needs hdr.ethernet.ether_type=0x0806"},
      {"hdr.icmp.type=8 -> drop", "hdr.icmp.type needs hdr.ethernet.ether_type=0x0800 or 0x86dd"},
      {"local_metadata.dscp=46 -> drop",
       "local_metadata.dscp needs hdr.ethernet.ether_type=0x0800 or 0x86dd, or "
       "local_metadata.isIpPacket=true"},
      {"hdr.ethernet.ether_type=0x0800 local_metadata.isIpPacket=false -> drop",
       "hdr.ethernet.ether_type=0x0800 is IP, so local_metadata.isIpPacket is true or is left out"},
      {"hdr.ethernet.ether_type=0x0800&0xff00 -> drop",
       "hdr.ethernet.ether_type takes a value without a mask, or is left out"},
      {"-> group=4", "group 4 is configured; the hardware has not reported it ready"},
      {"-> group=7", "group 7 is not configured; write it first"},
      {"-> vlan=4095", "VLAN ids are 0 to 4094"},
      {"-> output=0", "ports are 1 to 4294967039, and are matched without a mask"},
  };
  for (const auto& [words, hint] : cases) {
    const std::string line = "flow priority=1 " + words + "\n";
    EXPECT_THAT(sim(setup + "insert " + line).out, HasSubstr("  hint: " + hint + "\n"));
    const Json explained = simJson(setup + "explain " + line + "show flows\n");
    EXPECT_EQ(explained[explained.size() - 2]["hint"], hint);
    EXPECT_TRUE(explained.back()["flows"].empty());
  }
}

TEST(CliExplain, SaysWhatAWriteWouldDo) {
  const auto lines = simJson(
      "insert flow priority=2 -> vrf=5\n"
      "explain flow priority=1 local_metadata.vlan_id=7 -> drop vrf=5\n"
      "explain flow priority=2 -> vrf=6\n"
      "explain flow priority=70000 -> vrf=6\n");
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[1].dump(),
            R"({"type":"explanation","outcome":"inserts","flow":{"name":"flow-2","entryId":2,)"
            R"("priority":1,"priorityGroup":0,"tableType":0,)"
            R"("match":{"vlanId":{"value":7,"mask":4095}},"actions":{"drop":true,"vrf":5}},)"
            R"("vrf":{"taken":5,"firstUser":false}})");
  EXPECT_EQ(lines[2]["outcome"], "modifies");
  EXPECT_EQ(lines[2]["vrf"].dump(), R"({"released":5,"lastUser":true,"taken":6,"firstUser":true})");
  EXPECT_EQ(lines[3]["outcome"], "out-of-range");
  EXPECT_EQ(lines[3]["step"], "priority");
}

TEST(CliExplain, FollowsAnEntryFromItsRowToTheHardware) {
  const std::string script = "insert flow priority=2 -> drop\nhw flow flow-1 7\n";
  const auto lines = simJson(script + "explain flow-1\nexplain entry 1\n", 0, {"--clock", "steps"});
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[2], lines[3]);
  EXPECT_EQ(lines[2]["flow"]["name"], "flow-1");
  EXPECT_EQ(lines[2]["status"], 7);
  EXPECT_EQ(lines[2]["storedAt"], 1);
  EXPECT_EQ(lines[2]["configuredAt"], 1);
  EXPECT_EQ(lines[2]["explanation"]["outcome"], "modifies");
  const auto wrong =
      simJson("explain entry 1\nexplain flow-x\nexplain other\nstop\naudit\n", 2, {"-k"});
  EXPECT_EQ(wrong.size(), 4U);
}

TEST(CliExplain, ShowsWhatTheHardwareStillOwes) {
  const auto lines = simJson(
      "hw manual\ninsert flow priority=2 -> drop\nhw flow flow-1 3\n"
      "echo\nshow pending\nhw run\nshow pending\n",
      0, {"--clock", "steps"});
  EXPECT_EQ(lines[2].dump(),
            R"({"type":"pending","writes":[{"handle":1,"op":"insert","table":0,"match":"any",)"
            R"("age":3,"status":3,"words":"3 being programmed"}]})");
  EXPECT_TRUE(lines.back()["writes"].empty());
}

TEST(CliAudit, PrintsFindingsAndEndsARunOnlyWhenAsked) {
  const std::string script = "insert flow priority=2 -> drop\ncorvex no flow flow-1\naudit\n";
  const auto audited = simJson(script).back();
  EXPECT_EQ(audited["faults"], 1);
  EXPECT_EQ(audited["findings"][0]["kind"], "row-without-flow");
  EXPECT_THAT(sim(script).out, HasSubstr("1 rows, 0 flows, 0 groups; 1 faults, 0 expected; "));
  // What a hand has done is known; a batch may add no fault to it.
  EXPECT_EQ(sim(script + "insert flow priority=3 -> drop\n", {"--audit"}).status, 0);
}

}  // namespace
