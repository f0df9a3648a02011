// What reactors do back while a flow is written or deleted: they delete it, write it again, replace
// it, or drop the state machine.

#include "FlowFixture.h"

namespace OstraTest {
namespace {

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

TEST_F(FlowReentry, WhatAReactorToAWriteDoesStands) {
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

TEST_F(FlowReentry, AFlowThatAReactorToItsDeleteWritesAgainKeepsItsBooks) {
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
TEST_F(FlowReentry, DroppedWhileItWorksItFinishesFirst) {
  Texts order;
  Listener<const P4Runtime::TransactionResult&> told{batchStatus->resultNotifiees(),
                                                     [&](const P4Runtime::TransactionResult&) {
                                                       sm = nullptr;
                                                       order.emplace_back("told");
                                                     }};
  const auto watched = [&] {
    start();
    return std::make_unique<Listener<>>(sm->zeroReferencesNotifiees(),
                                        [&] { order.emplace_back("gone"); });
  };
  const auto dropping = [&](const char* what) {
    return [&, what] {
      sm = nullptr;
      order.emplace_back(what);
    };
  };
  auto watch = watched();
  OstraConfigEntry refused = flow(3, plainKey(3));
  refused.outputPortIs(0);
  table->entryIs(refused);
  EXPECT_EQ(std::exchange(order, {}), (Texts{"told", "gone"}));

  watch = watched();
  order.clear();
  onNextFlow(dropping("written"));
  table->entryIs(entry(7, 1, 5));
  EXPECT_EQ(std::exchange(order, {}), (Texts{"written", "gone"}));
  EXPECT_EQ(theFlow(7).entryId(), 1U) << "the write was finished";

  vrfs->delAll();
  watch = watched();
  order.clear();
  onNextFlow(dropping("deleted"));
  table->entryDel(plainKey(1));
  EXPECT_EQ(order, (Texts{"deleted", "gone"}));
  EXPECT_EQ(books(5), "0 users, creator 7, deletor 7");
}

}  // namespace
}  // namespace OstraTest
