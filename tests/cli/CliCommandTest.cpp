// The commands: scripts are played, and what is printed is compared with what stands beside them.

#include "CliProgram.h"
#include "tests/Transcript.h"
#include "tests/sim/SwitchFixture.h"

namespace {

using namespace CliTest;

namespace fs = std::filesystem;

// The scripts of a folder, sorted.
std::vector<fs::path> scriptsIn(const fs::path& folder) {
  std::vector<fs::path> scripts;
  for (const auto& entry : fs::directory_iterator{folder}) {
    if (entry.path().extension() == ".txt") {
      scripts.push_back(entry.path());
    }
  }
  std::sort(scripts.begin(), scripts.end());
  return scripts;
}

const auto nameOf = [](const auto& script) { return script.param.stem().string(); };

// The scenarios are documentation: what each prints is in a file beside it.
class Scenario : public testing::TestWithParam<fs::path> {};

TEST_P(Scenario, PrintsWhatItSays) {
  const Finished played = sim({}, {"--audit", "--clock", "steps", GetParam()});
  EXPECT_EQ(played.status, 0);
  EXPECT_EQ(played.errors, "");
  EXPECT_EQ(played.out, contentOf(fs::path{GetParam()}.replace_extension(".expected")));
}

INSTANTIATE_TEST_SUITE_P(All, Scenario, testing::ValuesIn(scriptsIn(OSTRA_SCENARIOS)), nameOf);

TEST(Scenarios, AllThatTheManualNamesAreThere) {
  std::set<std::string> names;
  for (const fs::path& script : scriptsIn(OSTRA_SCENARIOS)) {
    names.insert(script.stem());
  }
  EXPECT_THAT(names, ElementsAre("ecmp", "failures", "flows", "restart", "tour", "vrfs"));
}

// The transcripts are answered in JSON, by a switch in this process.
class Transcript : public SwitchTest::Switch, public testing::WithParamInterface<fs::path> {
 protected:
  Transcript() : Switch{Output::json_} {}
};

TEST_P(Transcript, IsAnsweredToTheLetter) {
  expectTranscript(GetParam(), [this](const std::string& command) { return play(command); });
}

INSTANTIATE_TEST_SUITE_P(All, Transcript, testing::ValuesIn(scriptsIn(OSTRA_TRANSCRIPTS)), nameOf);

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

// What a hand has done is known; a batch may add no fault to it.
TEST(CliCommand, AnAuditPrintsFindingsAndEndsNoRunForWhatWasDoneByHand) {
  const Finished audited =
      sim("insert flow priority=2 -> drop\ncorvex no flow flow-1\naudit\n"
          "insert flow priority=3 -> drop\n",
          {"--audit"});
  EXPECT_EQ(audited.status, 0);
  EXPECT_THAT(audited.out, HasSubstr("1 rows, 0 flows, 0 groups; 1 faults, 0 expected; "));
}

}  // namespace
