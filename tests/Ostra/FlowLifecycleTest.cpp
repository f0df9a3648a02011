#include <set>
#include <stdexcept>

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

  store(flow(0, plainKey(3)));
  for (const char* const name : {"mine", "flow-", "flow-8"}) {
    placeCxFlow(name);
  }
  start();
  EXPECT_TRUE(cxFlow(0) != nullptr && cxHwConfig->flowEntry("mine") != nullptr &&
              cxHwConfig->flowEntry("flow-") != nullptr)
      << "a name without a number is handle 0";
  EXPECT_EQ(cxFlow(8), nullptr);
}

TEST_F(FlowLifecycle, StartUpWalksOverManyFlowsAndGoesOnAfterBadEntries) {
  for (std::uint16_t number = 1; number <= 1000; ++number) {
    placeCxFlow("flow-" + std::to_string(number));
    if (number % 3 == 0) {
      OstraConfigEntry entry = flow(number, plainKey(number));
      if (number % 2 == 0) {
        entry.outputPortIs(0);
      }
      store(entry);
    }
  }
  start();
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(cxHwConfig->flowEntries().size(), 333U);
  const std::string told = results.take();
  for (std::uint16_t number = 3; number <= 1000; number += 3) {
    const bool bad = number % 2 == 0;
    ASSERT_EQ(told.find(std::to_string(number) + " invalidArgument") != std::string::npos, bad);
    ASSERT_EQ(sm->flowKeyToEntryHandle(plainKey(number)).has_value(), !bad);
    ASSERT_EQ(theFlow(number).changeCount() > 0, !bad) << "a refused entry's flow stays as it was";
  }
  sm->verify();
}

TEST_F(FlowLifecycle, StartUpEnablesCorvexOnce) {
  bool staleFlowThere = false;
  Listener<> told{cxConfig->enabledNotifiees(), [&] { staleFlowThere = cxFlow(3) != nullptr; }};
  placeCxFlow("flow-3");
  TextTrace trace{5};
  start();
  EXPECT_EQ(trace.places().at(0), "Ostra/OstraSm:685");
  EXPECT_EQ(trace.take().at(0), "5 OstraSm::handleInitialized");
  EXPECT_TRUE(cxConfig->enabled());
  EXPECT_EQ(told.take(), 1);
  EXPECT_TRUE(staleFlowThere) << "before it looks at the flows";
  EXPECT_EQ(cxFlow(3), nullptr);
  start();
  EXPECT_TRUE(cxConfig->enabled());
  EXPECT_EQ(told.take(), 0);
}

TEST_F(FlowLifecycle, WithoutACorvexConfigurationNothingIsWrittenAnywhere) {
  store(flowInVrf(7, 1, 5));
  sm = Ostra::ostraSmFactory(nullptr, nullptr, nullptr, table, vrfs, ports, validation, statusInfo,
                             batchStatus, telemetry);
  EXPECT_EQ(write(flowInVrf(8, 2, 5)), "");
  EXPECT_EQ(remove(flowInVrf(7, 1, 5)), "");
  EXPECT_EQ(books(5), neverUsed);
  EXPECT_EQ(telemetry->total(), 0U);
}

TEST_F(FlowLifecycle, WithoutATableEveryFlowIsStale) {
  placeCxFlow("flow-7");
  placeCxFlow("flow-0");
  sm = Ostra::ostraSmFactory(cxHwConfig, cxConfig, cxHwStatusDir, nullptr, vrfs, ports, validation,
                             statusInfo, batchStatus, telemetry);
  EXPECT_EQ(cxFlows(), Names{});
  EXPECT_EQ(sm->ostraConfigTable(), nullptr);
  EXPECT_TRUE(sm->hasNotificationActive());
}

TEST_F(FlowLifecycle, WithoutAStatusDirectoryNoGroupIsReady) {
  sm = Ostra::ostraSmFactory(cxHwConfig, cxConfig, nullptr, table, vrfs, ports, validation,
                             statusInfo, batchStatus, telemetry);
  cxHwConfig->groupEntryIs(3);
  OstraConfigEntry entry = flow(7, plainKey(1));
  entry.groupGiven = true;
  entry.groupId = 3;
  EXPECT_EQ(write(entry), "7 notFound: Group id: 3 is not found");
}

TEST_F(FlowLifecycle, NotificationsReachItOnlyWhileTheyAreOn) {
  start();
  sm->hasNotificationActiveIs(false);
  write(flow(1, plainKey(1)));
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(cxFlows(), Names{}) << "what it missed is not told again";
  write(flow(2, plainKey(2)));
  EXPECT_EQ(cxFlows(), Names{"flow-2"});
  table->entryNotifiees().notify(plainKey(1));
  EXPECT_NE(cxFlow(1), nullptr) << "until somebody does";
}

TEST_F(FlowLifecycle, GoingItLeavesCorvexAndTheBooksToASuccessorAndLetsGoOfItsInputs) {
  const auto before = inputReferences();
  start();
  write(flowInVrf(7, 1, 5));
  write(flow(8, plainKey(2)));
  sm = nullptr;
  EXPECT_TRUE(table->entryNotifiees().empty());
  batchStatus->batchStatusEntryDelAll();
  EXPECT_EQ(inputReferences(), before);
  EXPECT_EQ(cxFlows(), (Names{"flow-7", "flow-8"}));
  EXPECT_EQ(books(5), "1 users, creator 7, deletor none");

  table->entryDel(plainKey(2));
  vrfs->delAll();  // the service restarts with it
  start();
  EXPECT_EQ(cxFlows(), Names{"flow-7"});
  EXPECT_EQ(books(5), "1 users, creator 7, deletor none");
  EXPECT_EQ(remove(flow(7, plainKey(1))), "");
  EXPECT_EQ(cxFlows(), Names{});
}

TEST_F(FlowLifecycle, AConstructorThatRaisesLeavesNothingBehind) {
  OstraConfigEntry bad = flow(2, plainKey(2));
  bad.flowKey.priorityIs(65537);
  store(flow(1, plainKey(1)));
  store(bad);
  store(flow(3, plainKey(3)));
  placeCxFlow("flow-9");
  const auto before = inputReferences();
  EXPECT_EQ(raised([&] { start(); }), "Priority::value < -1 or > Priority::max not allowed");
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

TEST_F(FlowLifecycle, AChangeMadeWhileOneIsUnderWayIsSeenToo) {
  start();
  OstraConfigEntry entry = flow(7, plainKey(1));
  OstraConfigEntry newer = entry;
  newer.actions.setDscpIs(9, true);
  const OstraConfigEntry other = flow(8, plainKey(2));
  bool done = false;
  Listener<const Korm::Name&> reentering{cxHwConfig->flowEntryNotifiees(), [&](const Korm::Name&) {
                                           if (!std::exchange(done, true)) {
                                             table->entryIs(newer);
                                             table->entryIs(other);
                                             table->entryDel(other.key());
                                           }
                                         }};
  EXPECT_EQ(write(entry), "");
  EXPECT_EQ(cxFlows(), Names{"flow-7"});
  EXPECT_EQ(theFlow(7).actions().setDscp(), 9U);
  EXPECT_FALSE(sm->flowKeyToEntryHandle(other.key()).has_value());
  sm->verify();
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

class FlowCorruption : public FlowLifecycle {
 protected:
  FlowCorruption() {
    table->corruptionHandlerIs([this](const std::string& message) { reports.push_back(message); });
  }
  // What a stray write to shared memory does to a row.
  void damage(const OstraKey& key) const {
    const_cast<OstraConfigEntry*>(table->entry(key))->entryId ^= 0x10U;
    EXPECT_THROW(static_cast<void>(table->entry(key)), Vasta::Corruption);
  }

 public:
  Texts reports;
};

TEST_F(FlowCorruption, OfOneRowIsReportedAndLeavesItsFlowAsItIs) {
  start();
  for (std::uint16_t number = 1; number <= 3; ++number) {
    write(flowInVrf(number, number, 5));
  }
  damage(plainKey(2));
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

TEST_F(FlowCorruption, OfARowDoesNotStopTheStart) {
  for (std::uint16_t number = 1; number <= 5; ++number) {
    store(flow(number, plainKey(number)));
    placeCxFlow("flow-" + std::to_string(number));
  }
  damage(plainKey(1));
  damage(plainKey(3));
  start();
  EXPECT_EQ(reports.size(), 4U) << "two rows, in the walk over handles and in that over entries";
  EXPECT_EQ(cxFlows(), (Names{"flow-2", "flow-4", "flow-5"}))
      << "the handles of the corrupt rows are not known";
  for (const std::uint16_t number : std::initializer_list<std::uint16_t>{2, 4, 5}) {
    EXPECT_EQ(sm->flowKeyToEntryHandle(plainKey(number)), number);
    EXPECT_GT(theFlow(number).changeCount(), 0.0);
  }
}

}  // namespace
}  // namespace OstraTest
