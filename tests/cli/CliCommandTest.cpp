// The commands, through the program, with the JSON that comes of them to the letter.

#include "CliProgram.h"

namespace {

using namespace CliTest;

// The result of an insert; `what` is its kind, with its id if it has one.
std::string inserted(const std::string& what, unsigned handle, const std::string& state,
                     const std::string& message = "") {
  return R"({"type":"result","op":"insert","kind":)" + what + R"(,"handle":)" +
         std::to_string(handle) + R"(,"state":)" + state + R"(,"message":")" + message + R"("})";
}

TEST(CliCommand, GroupsAreShownWithTheirBuckets) {
  const auto lines = simJsonLines(
      "port 1 Ethernet1\nencap 9 dst=198.51.100.7 src=192.0.2.1 type=ip-in-ip dscp=10 ttl=64\n"
      "insert member 5 encap=9 port=1 src-mac=02:00:00:00:00:01 dst-mac=02:00:00:00:00:05\n"
      "insert group 3 weights=7 members=5\nshow groups\n");
  const std::string buckets =
      R"("buckets":[{"actions":{"outputIntf":"Ethernet1","encap":{"type":"ip-in-ip",)"
      R"("src":"192.0.2.1","dst":"198.51.100.7","ttl":64,"dscp":10},)"
      R"("dstMac":"02:00:00:00:00:05",)"
      R"("srcMac":"02:00:00:00:00:01","fixedBlock":"0005410040000000"}}])";
  EXPECT_THAT(
      lines,
      ElementsAre(
          inserted(R"("member","id":5)", 1, R"("done","code":0)"),
          inserted(R"("group","id":3)", 2, R"("done","code":0)"),
          R"({"type":"groups","groups":[{"id":3,"groupType":1,"deleted":false,"ready":true,)"
          R"("changeCount":4,)" +
              buckets +
              R"(},{"id":4294967301,"groupType":2,"deleted":false,"ready":true,"changeCount":3,)" +
              buckets + "}]}"));
}

TEST(CliCommand, TheHardwareIsShownAndItsReports) {
  EXPECT_THAT(
      simJsonLines("hw manual\ninsert flow priority=1 -> drop\nhw run\n"
                   "hw flow flow-1 12\nhw flow flow-1 3\nhw flow other 77\n"
                   "hw group 4294967301 4\nhw count flow-1 1000 64000\nshow hw\n"
                   "hw remove flow other\nhw remove group 4294967301\n"
                   "hw remove group 1\nhw remove flow nobody\ncounter 1\n"
                   "hw unpublish\nshow hw\ncorvex no flow nobody\n"
                   "insert flow priority=2 local_metadata.dscp=46 -> traffic-class=7\n"),
      ElementsAre(
          inserted(R"("flow")", 1, R"("pending")"),
          R"({"type":"report","handle":1,"code":0,"message":""})",
          R"({"type":"report","handle":1,"code":6,"message":""})",
          R"({"type":"hw","flows":[{"name":"flow-1","status":3},{"name":"other","status":77}],)"
          R"("groups":[{"id":4294967301,"status":4}],"counterPoll":true})",
          R"({"type":"counter","handle":1,"packets":1000,"bytes":64000})",
          R"({"type":"hw","flows":[],"groups":[],"counterPoll":true})",
          inserted(R"("flow")", 2, R"("done","code":14)",
                   "local_metadata.dscp is not allowed because ether type is ignored and "
                   "isIpPacket is ignored")));
}

TEST(CliCommand, VrfsAndEntriesAreShown) {
  const auto lines = simJsonLines(
      "hw manual\ninsert flow priority=1 -> vrf=5\ninsert flow table=2 priority=2 -> vrf=5\n"
      "insert flow priority=3 -> vrf=16777214 group=9\nshow vrfs\nshow entries\n");
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(lines[3],
            R"({"type":"vrfs","vrfs":[{"vrf":5,"refCount":2,"creator":1,"deletor":0},{)"
            R"("vrf":16777214,"refCount":1,"creator":0,"deletor":0}],"dependents":[{"handle":1,)"
            R"("vrf":5},{"handle":3,"vrf":16777214}]})");
  EXPECT_EQ(lines[4],
            R"({"type":"entries","tables":[{"table":0,"entries":[{"handle":1,"indexed":true,)"
            R"("vrf":5},{"handle":3,"indexed":false,"vrf":16777214}]},{"table":2,"entries":[{)"
            R"("handle":2,"indexed":true,"vrf":5}]}]})");
}

TEST(CliCommand, CommentsBlanksAndLineEndsDoNotMatter) {
  const auto finished =
      sim("# a comment\n\n \t \n"
          "  echo  two  words \t # and a comment\r\n"
          "echo a#b c=#d #e\n"
          "port 1 Ethernet#1 # that is its name\n"
          "insert\tflow priority=1 -> mirror-ingress=a#b#\n"
          "show flows\n"
          "echo last line without an end");
  EXPECT_EQ(finished.status, 0) << finished.errors;
  EXPECT_THAT(finished.out, StartsWith("two  words\na#b c=#d\ninsert flow (entry 1): done\n"));
  EXPECT_THAT(finished.out, EndsWith("ingrMirrorIntf=a#b#\nlast line without an end\n"));
}

// The scenarios are documentation that is played: each prints what stands beside it.

namespace fs = std::filesystem;

std::vector<std::string> scenarios() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator{OSTRA_SCENARIOS}) {
    if (entry.path().extension() == ".txt") {
      names.push_back(entry.path().stem().string());
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

class Scenario : public testing::TestWithParam<std::string> {};

TEST_P(Scenario, PrintsWhatItSays) {
  const fs::path base = fs::path{OSTRA_SCENARIOS} / GetParam();
  const Finished played = sim({}, {"--audit", "--clock", "steps", base.string() + ".txt"});
  EXPECT_EQ(played.status, 0);
  EXPECT_EQ(played.errors, "");
  EXPECT_EQ(linesOf(played.out), linesOf(contentOf(base.string() + ".expected")));
}

INSTANTIATE_TEST_SUITE_P(All, Scenario, testing::ValuesIn(scenarios()),
                         [](const auto& scenario) { return scenario.param; });

TEST(Scenarios, AllThatTheManualNamesAreThere) {
  const std::vector<std::string> expected{"ecmp", "failures", "flows", "restart", "tour", "vrfs"};
  EXPECT_EQ(scenarios(), expected);
}

}  // namespace
