// Explanations, hints, audits and pending writes, as people and programs see them.

#include "CliProgram.h"

namespace {

using namespace CliTest;

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
