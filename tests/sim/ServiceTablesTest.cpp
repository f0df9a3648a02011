// What the service publishes in its tables, and what it shows.
#include <unistd.h>

#include <gtest/gtest.h>

#include "Ostra/OstraStatus.h"
#include "platform/KormVasta/SharedMemory.h"
#include "platform/Vasta/Reader.h"
#include "sim/NameOrder.h"
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
  template <class Record>
  [[nodiscard]] Vasta::Reader<Record> reader(const std::string& path) const {
    return Vasta::Reader<Record>{KormVasta::segmentName(prefix, path)};
  }
  // "1 code 0", with "deleted" behind.
  [[nodiscard]] Lines statuses(std::uint8_t table = 0) const {
    auto rows = reader<Ostra::OstraStatusEntry>(Sim::flowStatusTablePath(table));
    Lines lines;
    rows.forEach([&lines](const Ostra::OstraStatusEntry& row) {
      lines.push_back(std::to_string(row.entryHandle) + " code " +
                      std::to_string(static_cast<std::uint32_t>(row.errorCode)) +
                      (row.deleted ? " deleted" : ""));
    });
    std::sort(lines.begin(), lines.end());
    return lines;
  }
};

TEST_F(ServiceTables, AnotherProcessFindsEveryTableByItsPath) {
  apply({insert({.number = 1, .table = 14}), write(Op::insert_, Member{5}),
         write(Op::insert_, Group{3, {5}})});
  auto flow = reader<Ostra::OstraConfigEntry>(Sim::flowTablePath(14));
  const auto row = flow.find(rowOf({.number = 1}).flowKey);
  ASSERT_TRUE(row.has_value());
  EXPECT_EQ(row->entryHandle, 1U);
  EXPECT_EQ(row->entryId, 1U);
  EXPECT_TRUE(reader<P4RuntimeRouting::NexthopInfo>(Sim::memberTablePath()).find(5));
  EXPECT_TRUE(reader<P4RuntimeRouting::EcmpMemberList>(Sim::groupTablePath()).find(3));
  EXPECT_TRUE(reader<NexthopGroup::EncapEntry>(Sim::encapTablePath()).find(9));
  EXPECT_THAT(statuses(14), ElementsAre("1 code 0"));
}

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
  agent.run();
  EXPECT_THAT(statuses(), ElementsAre("3 code 15", "4 code 0"));
  service.stop();
  EXPECT_THAT(statuses(), ElementsAre("3 code 15", "4 code 0"));
  apply({remove({.number = 3, .priority = 70000})});
  EXPECT_THAT(statuses(), ElementsAre("4 code 0"));
}

TEST_F(ServiceTables, EveryResultIsANewGeneration) {
  apply({insert({.number = 1})});
  auto rows = reader<Ostra::OstraStatusEntry>(Sim::flowStatusTablePath(0));
  const auto key = rowOf({.number = 1}).flowKey;
  const auto before = rows.find(key);
  apply({modify({.number = 1, .output = 1})});
  const auto after = rows.find(key);
  ASSERT_TRUE(before && after);
  EXPECT_LT(before->genId, after->genId);
}

class ServiceViews : public Switch {};

TEST_F(ServiceViews, CountersAreReadThroughTheLibrary) {
  Sim::Service never;
  EXPECT_EQ(never.counter(1), std::nullopt);
  apply({insert({.number = 1})});
  agent.countersAdd("flow-1", 10, 1000);
  agent.countersAdd("flow-1", 5, 500, "unit7");
  EXPECT_EQ(service.counter(1), (P4Runtime::P4CounterData{0, 15, 1500}));
  EXPECT_EQ(service.counter(2), (P4Runtime::P4CounterData{}));
}

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

TEST_F(ServiceViews, GroupsStandInTheOrderOfTheirIds) {
  apply({write(Op::insert_, Member{5}), write(Op::insert_, Member{2}),
         write(Op::insert_, Group{3, {5, 2}})});
  std::vector<OpenFlowTable::GroupId> ids;
  for (const auto* group : service.groups()) {
    ids.push_back(group->id());
  }
  EXPECT_THAT(ids, ElementsAre(3, memberBase + 2, memberBase + 5));
  EXPECT_EQ(service.groups()[0]->buckets(), 2U);
}

}  // namespace
