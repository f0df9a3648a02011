#include "FlowFixture.h"
#include "OwnRules.h"

namespace OstraTest {
namespace {

class FlowLifecycle : public FlowFixture {
 protected:
  // Stores a row that no state machine hears of yet.
  void store(const OstraConfigEntry& entry) {
    batchStatus->batchStatusEntryIs(entry.entryHandle);
    table->entryIs(entry);
  }
  [[nodiscard]] std::set<std::string> cxFlows() const {
    std::set<std::string> names;
    for (const auto& flow : cxHwConfig->flowEntries()) {
      names.insert(flow.key);
    }
    return names;
  }
  // Of everything that a state machine is given.
  [[nodiscard]] std::vector<std::uint32_t> inputReferences() const {
    const auto of = [](const auto&... inputs) { return std::vector{inputs->references()...}; };
    return of(cxHwConfig, cxConfig, cxHwStatusDir, table, vrfs, ports, validation, statusInfo,
              batchStatus, telemetry);
  }
};

using Names = std::set<std::string>;

TEST_F(FlowLifecycle, StartUpDeletesTheFlowsWhoseHandleTheTableDoesNotHold) {
  store(flow(18446744073709551611U, plainKey(2)));
  store(flow(7, plainKey(1)));
  for (const char* const name : {"flow-7", "flow-8", "flow-07", "flow-7 (mine)", "flow--5",
                                 "flow-70", "flow-0", "Flow-7", "mine", "flow-", ""}) {
    placeCxFlow(name);
  }
  start();
  EXPECT_EQ(cxFlows(),
            (Names{"flow-7", "flow-07", "flow-7 (mine)", "flow--5", "flow-18446744073709551611"}))
      << "what counts is the number that is read from the name";
}

TEST_F(FlowLifecycle, StartsWithoutWhatMayBeMissing) {
  const auto startOn = [this](const auto& hwConfig, const auto& statusDir, const auto& flows) {
    sm = Ostra::ostraSmFactory(hwConfig, hwConfig ? cxConfig : nullptr, statusDir, flows, vrfs,
                               ports, validation, statusInfo, batchStatus, telemetry);
  };
  store(flowInVrf(7, 1, 5));
  startOn(Korm::Ptr<OpenFlowTable::CorvexHwConfig>{}, nullptr, table);
  EXPECT_EQ(write(flowInVrf(8, 2, 5)), "");
  EXPECT_EQ(remove(flowInVrf(7, 1, 5)), "");
  EXPECT_EQ(books(5), neverUsed);
  EXPECT_EQ(telemetry->total(), 0U);

  startOn(cxHwConfig, nullptr, table);
  cxHwConfig->groupEntryIs(3);
  OstraConfigEntry entry = flow(7, plainKey(1));
  entry.groupGiven = true;
  entry.groupId = 3;
  EXPECT_EQ(write(entry), "7 notFound: Group id: 3 is not found") << "no group is ready";

  placeCxFlow("flow-0");
  startOn(cxHwConfig, cxHwStatusDir, nullptr);
  EXPECT_EQ(cxFlows(), Names{}) << "without a table every flow is stale";
  EXPECT_EQ(sm->ostraConfigTable(), nullptr);
  EXPECT_TRUE(sm->hasNotificationActive());
}

TEST_F(FlowLifecycle, PrefetchingABatchOfAnySizeChangesNothing) {
  std::vector<OstraConfigEntry> entries;
  std::vector<const OstraKey*> keys;
  entries.reserve(100 * Ostra::OstraSm::prefetchable);
  for (std::uint16_t number = 1; number <= entries.capacity(); ++number) {
    keys.push_back(&entries.emplace_back(flow(number, plainKey(number))).flowKey);
  }
  start();
  sm->prefetch({});
  sm->prefetch(keys);
  for (std::size_t at = 0; at < entries.size(); at += 2) {
    write(entries[at]);
  }
  const Names before = cxFlows();
  sm->prefetch(keys);
  EXPECT_EQ(cxFlows(), before);
  EXPECT_EQ(sm->indexedKeys(), before.size());
  sm->verify();

  sm = Ostra::ostraSmFactory(nullptr, nullptr, nullptr, table, vrfs, ports, validation, statusInfo,
                             batchStatus, telemetry);
  sm->flowKeyToEntryHandleIs(*keys.front(), 1);
  sm->prefetch(keys);
}

TEST_F(FlowLifecycle, AConstructorThatRaisesLeavesNothingBehind) {
  OstraConfigEntry bad = flow(2, plainKey(2));
  bad.flowKey.priorityIs(65537);
  store(flow(1, plainKey(1)));
  store(bad);
  store(flow(3, plainKey(3)));
  placeCxFlow("flow-9");
  const auto before = inputReferences();
  EXPECT_EQ(messageOf<Korm::RangeException>([&] { start(); }),
            "Priority::value < -1 or > Priority::max not allowed");
  EXPECT_FALSE(sm);
  EXPECT_TRUE(table->entryNotifiees().empty());
  EXPECT_EQ(inputReferences(), before);
  EXPECT_EQ(cxFlow(9), nullptr) << "what was done stays done";
  EXPECT_TRUE(cxConfig->enabled());
  store(flow(4, plainKey(4)));
  EXPECT_EQ(cxFlow(4), nullptr) << "nobody hears";
  table->entryDel(bad.key());
  start();
  EXPECT_EQ(cxFlows(), (Names{"flow-1", "flow-3", "flow-4"}));
}

TEST_F(FlowLifecycle, EveryErrorOfTheServiceReportsItselfAndOthersPassOn) {
  const auto rules = Korm::makePtr<OwnRules>();
  sm = Ostra::ostraSmFactory(cxHwConfig, cxConfig, cxHwStatusDir, table, vrfs, ports, rules,
                             statusInfo, batchStatus, telemetry);
  OstraKey badPort;
  badPort.ingressPortIs(1, 0xFFFFFFFF);
  EXPECT_EQ(write(flow(1, badPort)), "");
  OstraConfigEntry noGroup = flow(2, plainKey(2));
  noGroup.groupGiven = true;
  EXPECT_EQ(write(noGroup), "");
  EXPECT_EQ(rules->reports, 2);
  OstraConfigEntry output = flow(3, plainKey(3));
  output.outputPortIs(1);
  EXPECT_THROW(table->entryIs(output), std::logic_error);
  EXPECT_EQ(rules->reports, 2);
  EXPECT_EQ(write(flow(4, plainKey(4))), "");
  EXPECT_EQ(cxFlows(), Names{"flow-4"});
}

TEST_F(FlowLifecycle, ACorruptRowIsReportedAndLeavesItsFlowAsItIs) {
  Texts reports;
  table->corruptionHandlerIs([&](const std::string& message) { reports.push_back(message); });
  start();
  for (std::uint16_t number = 1; number <= 3; ++number) {
    write(flowInVrf(number, number, 5));
  }
  const_cast<OstraConfigEntry*>(table->entry(plainKey(2)))->entryId ^= 0x10U;
  table->entryNotifiees().notify(plainKey(2));
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_NE(reports[0].find("row 1"), std::string::npos) << reports[0];
  EXPECT_NE(cxFlow(2), nullptr);
  EXPECT_EQ(sm->flowKeyToEntryHandle(plainKey(2)), 2U);
  EXPECT_EQ(books(5), "3 users, creator 1, deletor none");
  EXPECT_EQ(results.take(), "");

  EXPECT_EQ(write(flowInVrf(4, 4, 5)), "") << "the others go on";
  OstraConfigEntry healed = flowInVrf(2, 2, 6);
  EXPECT_EQ(write(healed), "") << "and a write heals the row";
  EXPECT_EQ(theFlow(2).actions().vrf(), 6U);
  EXPECT_EQ(reports.size(), 1U);
}

}  // namespace
}  // namespace OstraTest
