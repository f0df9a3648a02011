// The scenarios are documentation that is played: each prints what stands beside it.

#include "CliProgram.h"

namespace {

using namespace CliTest;

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
