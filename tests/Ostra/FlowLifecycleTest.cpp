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
    return referencesOf(cxHwConfig, cxConfig, cxHwStatusDir, table, vrfs, ports, validation,
                        statusInfo, batchStatus, telemetry);
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
  store(flowInVrf(7, 1, 5));
  start([](auto& inputs) { inputs.cxHwConfig = nullptr; });
  EXPECT_EQ(write(flowInVrf(8, 2, 5)), "");
  EXPECT_EQ(remove(flowInVrf(7, 1, 5)), "");
  EXPECT_EQ(books(5), neverUsed);
  EXPECT_EQ(telemetry->total(), 0U);

  start([](auto& inputs) {
    inputs.cxConfig = nullptr;
    inputs.cxHwStatusDir = nullptr;
  });
  cxHwConfig->groupEntryIs(3);
  OstraConfigEntry entry = flow(7, plainKey(1));
  entry.groupGiven = true;
  entry.groupId = 3;
  EXPECT_EQ(write(entry), "7 notFound: Group id: 3 is not found") << "no group is ready";

  placeCxFlow("flow-0");
  start([](auto& inputs) { inputs.ostraConfigTable = nullptr; });
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

  start([](auto& inputs) { inputs.cxHwConfig = nullptr; });
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

TEST_F(FlowLifecycle, ReportsErrorsOfTheServiceAndPassesOthersOn) {
  const auto rules = Korm::makePtr<OwnRules>();
  start([&](auto& inputs) { inputs.validationHelper = rules; });
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

// What reactors do back while a flow is written or deleted: they delete it, write it again, replace
// it, or drop the state machine.

class FlowReentry : public FlowFixture {
 protected:
  FlowReentry() { start(); }

  // Makes a reactor do this, once, when Corvex tells of the next flow.
  void onNextFlow(std::function<void()> act) { reactor_.nextIs(std::move(act)); }

  // An entry of the flow's key with a VRF and a mark of its own.
  [[nodiscard]] static OstraConfigEntry entry(std::uint64_t handle, std::uint32_t id, VrfId vrf) {
    OstraConfigEntry made = flowInVrf(handle, 1, vrf);
    made.entryId = id;
    made.actions.setDscpIs(static_cast<std::uint8_t>(id), true);
    return made;
  }
  // Writes the Corvex flow, as nobody but the library should.
  void writeCorvexFlow() {
    OpenFlowTable::FlowEntry& flow =
        cxHwConfig->flowEntryIs("flow-7", {}, {}, OpenFlowTable::Priority{1}, 0,
                                OpenFlowTable::TableType::l2_, 0, 0, 0, false, true);
    flow.entryIdIs(99);
    flow.changeCountIs(5);
  }

  // The Corvex flows, and what the library remembers: "flow-7 id 1 dscp 1 changed 0; handle 7 vrf
  // 5".
  [[nodiscard]] std::string state() const {
    std::map<std::string, std::string> flows;
    for (const auto& [name, flow] : cxHwConfig->flowEntries()) {
      flows[name] = name + " id " + std::to_string(flow.entryId()) + " dscp " +
                    std::to_string(flow.actions().setDscp()) + " changed " +
                    std::to_string(static_cast<int>(flow.changeCount()));
    }
    std::string text;
    for (const auto& [name, flow] : flows) {
      text += flow + "; ";
    }
    const auto handle = sm->flowKeyToEntryHandle(plainKey(1));
    text += handle ? "handle " + std::to_string(*handle) : "no handle";
    for (const VrfId vrf : {5U, 6U}) {
      if (vrfs->vrfIdRefCount(vrf).value_or(0) != 0) {
        text += " vrf " + std::to_string(vrf);
        EXPECT_EQ(sm->vrfId(plainKey(1)), vrf);
      }
    }
    sm->verify();
    return text;
  }
  void forgetAll() {
    table->entryDelAll();
    while (!cxHwConfig->flowEntries().empty()) {
      cxHwConfig->flowEntryDel(cxHwConfig->flowEntries().begin()->key);
    }
    vrfs->delAll();
    start();
  }

 private:
  Listener<const Korm::Name&> reactor_{cxHwConfig->flowEntryNotifiees()};
};

struct Case {
  const char* what;
  std::function<void()> act;
  std::string after;
};

TEST_F(FlowReentry, WhatAReactorDoesToAWriteIsKept) {
  const OstraKey key = plainKey(1);
  const Case cases[] = {
      {"nothing", [] {}, ""},
      {"deletes the entry", [&] { table->entryDel(key); }, "no handle"},
      {"writes the entry again", [&] { table->entryIs(entry(7, 9, 6)); },
       "flow-7 id 9 dscp 9 changed 100; handle 7 vrf 6"},
      {"deletes it and inserts it under another handle",
       [&] {
         table->entryDel(key);
         table->entryIs(entry(8, 9, 6));
       },
       "flow-8 id 9 dscp 9 changed 0; handle 8 vrf 6"},
      {"removes the Corvex flow", [&] { cxHwConfig->flowEntryDel("flow-7"); }, "handle 7 vrf 5"},
      {"writes the Corvex flow itself", [&] { writeCorvexFlow(); },
       "flow-7 id 99 dscp 0 changed 5; handle 7 vrf 5"},
  };
  for (const auto& [what, act, after] : cases) {
    onNextFlow(act);
    write(entry(7, 1, 5));
    EXPECT_EQ(state(), after.empty() ? "flow-7 id 1 dscp 1 changed 0; handle 7 vrf 5" : after)
        << "on an insert, a reactor " << what;
    forgetAll();
    write(entry(7, 1, 5));
    onNextFlow(act);
    write(entry(7, 2, 5));
    EXPECT_EQ(state(), after.empty() ? "flow-7 id 2 dscp 2 changed 100; handle 7 vrf 5" : after)
        << "on a modify, a reactor " << what;
    forgetAll();
  }
}

TEST_F(FlowReentry, AFlowWrittenAgainByAReactorToItsDeleteKeepsItsBooks) {
  const Case cases[] = {
      {"inserts the entry again", [&] { table->entryIs(entry(7, 9, 6)); },
       "flow-7 id 9 dscp 9 changed 0; handle 7 vrf 6"},
      {"inserts it under another handle", [&] { table->entryIs(entry(8, 9, 5)); },
       "flow-8 id 9 dscp 9 changed 0; handle 8 vrf 5"},
      {"writes the Corvex flow alone", [&] { writeCorvexFlow(); },
       "flow-7 id 99 dscp 0 changed 5; no handle"},
  };
  for (const auto& [what, act, after] : cases) {
    write(entry(7, 1, 5));
    onNextFlow(act);
    remove(entry(7, 1, 5));
    EXPECT_EQ(state(), after) << what;
    forgetAll();
  }
}

// Whether the state machine is still there shows in when it goes.
TEST_F(FlowReentry, FinishesItsWriteWhenItIsDroppedMeanwhile) {
  Texts order;
  const auto drop = [&](const char* what) {
    sm = nullptr;
    order.emplace_back(what);
  };
  Listener<const P4Runtime::TransactionResult&> told{
      batchStatus->resultNotifiees(), [&](const P4Runtime::TransactionResult&) { drop("told"); }};
  Listener<const Korm::Name&> heard{cxHwConfig->flowEntryNotifiees(), [&](const Korm::Name&) {
                                      drop(cxFlow(7) != nullptr ? "written" : "deleted");
                                    }};
  const auto orderOf = [&](const std::function<void()>& change) {
    start();
    order.clear();
    const Listener<> watch{sm->zeroReferencesNotifiees(), [&] { order.emplace_back("gone"); }};
    change();
    return order;
  };
  OstraConfigEntry refused = flow(3, plainKey(3));
  refused.outputPortIs(0);
  EXPECT_THAT(orderOf([&] { table->entryIs(refused); }), ElementsAre("told", "gone"));
  EXPECT_THAT(orderOf([&] { table->entryIs(entry(7, 1, 5)); }), ElementsAre("written", "gone"));
  EXPECT_EQ(theFlow(7).entryId(), 1U) << "the write was finished";
  vrfs->delAll();
  EXPECT_THAT(orderOf([&] { table->entryDel(plainKey(1)); }), ElementsAre("deleted", "gone"));
  EXPECT_EQ(books(5), "0 users, creator 7, deletor 7");
}

}  // namespace
}  // namespace OstraTest
