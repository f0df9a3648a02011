// What the service publishes in its status tables, and what it shows.
#include <unistd.h>

#include <gtest/gtest.h>

#include "Ostra/OstraStatus.h"
#include "platform/KormVasta/SharedMemory.h"
#include "platform/Vasta/Reader.h"
#include "sim/private/NameOrder.h"
#include "sim/TablePaths.h"
#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;

// Runs with named shared memory, and reads the tables as another process would.
struct NamedMemory {
  NamedMemory() { KormVasta::sharedMemoryIs({.prefix = prefix, .takeOver = false}); }
  ~NamedMemory() { KormVasta::sharedMemoryIs({}); }
  const std::string prefix = "simservice" + std::to_string(getpid());
};

class ServiceTables : public NamedMemory, public Switch {
 protected:
  using Rows = Vasta::Reader<Ostra::OstraStatusEntry>;
  [[nodiscard]] Rows rows() const {
    return Rows{KormVasta::segmentName(prefix, Sim::flowStatusTablePath(0))};
  }
  // "1 code 0", with "deleted" behind.
  [[nodiscard]] Lines statuses() const {
    Lines lines;
    rows().forEach([&lines](const Ostra::OstraStatusEntry& row) {
      lines.push_back(std::to_string(row.entryHandle) + " code " +
                      std::to_string(static_cast<std::uint32_t>(row.errorCode)) +
                      (row.deleted ? " deleted" : ""));
    });
    std::sort(lines.begin(), lines.end());
    return lines;
  }
};

TEST_F(ServiceTables, AStatusRowFollowsItsEntry) {
  agent.automaticIs(false);
  apply({insert({.number = 1}), insert({.number = 2, .output = 0}),
         insert({.number = 3, .priority = 70000})});
  // Nothing is said of a flow before the first result.
  EXPECT_THAT(statuses(), ElementsAre("2 code 15", "3 code 15"));
  agent.run();
  EXPECT_THAT(statuses(), ElementsAre("1 code 0", "2 code 15", "3 code 15"));
  agent.flowStatusIs("flow-1", FlowStatus::hardwareFull_);
  EXPECT_THAT(statuses(), ElementsAre("1 code 1", "2 code 15", "3 code 15"));
  apply({remove({.number = 2}), remove({.number = 1})});
  EXPECT_THAT(statuses(), ElementsAre("1 code 1 deleted", "3 code 15"));
  // The key's next entry takes the row over, and the first one's end leaves it alone.
  apply({insert({.number = 1})});
  agent.flowStatusIs("flow-4", FlowStatus::programmed_);
  EXPECT_THAT(statuses(), ElementsAre("3 code 15", "4 code 0"));
  agent.flowStatusDel("flow-1");
  EXPECT_THAT(reports(), ElementsAre("1 code 0", "1 code 1", "4 code 0", "1 code 0"));
  EXPECT_THAT(statuses(), ElementsAre("3 code 15", "4 code 0"));
  service.stop();
  EXPECT_THAT(statuses(), ElementsAre("3 code 15", "4 code 0"));
  apply({remove({.number = 3, .priority = 70000})});
  EXPECT_THAT(statuses(), ElementsAre("4 code 0"));
}

TEST_F(ServiceTables, EveryResultIsANewGeneration) {
  const auto generation = [this] { return rows().find(rowOf({.number = 1}).flowKey)->genId; };
  apply({insert({.number = 1})});
  const std::uint64_t first = generation();
  apply({modify({.number = 1, .output = 1})});
  EXPECT_LT(first, generation());
}

class ServiceViews : public Switch {};

TEST_F(ServiceViews, FlowsStandInTheOrderOfTheirNumbers) {
  for (const char* name : {"flow-10", "zebra", "flow-9", "flow-100000000000000000000000", "alpha",
                           "flow-010", "acl2"}) {
    service.corvexFlowIs(name);
  }
  const Lines expected{"acl2",  "flow-9", "flow-010", "flow-10", "flow-100000000000000000000000",
                       "alpha", "zebra"};
  EXPECT_EQ(flows(), expected);
  EXPECT_EQ(hardware().size(), expected.size());
  EXPECT_FALSE(service.corvexFlowDel("beta"));
  EXPECT_TRUE(service.corvexFlowDel("zebra"));
}

}  // namespace
