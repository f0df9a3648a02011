// Random batches of all kinds against a model of what is to be stored, on hardware that is full,
// late or broken. After every batch everything is read back, and the switch's own tables, groups
// and VRFs are looked at.
#include "EngineFixture.h"

namespace P4rtTest {
namespace {

class EngineRandom : public Programmed {
 protected:
  // Waits for the answer to the write, and applies it to the model.
  void carryThrough(const WriteCall& call) {
    await(call, [this] { return !random_.oneIn(4); });
    const Texts outcomes = wordsOf(call->status);
    seen_.insert(outcomes.begin(), outcomes.end());
    Texts ofHardware;
    if (!hardwareTakesAll()) {
      ofHardware = {"RESOURCE_EXHAUSTED/1", "FAILED_PRECONDITION/16",
                    agent->automatic() ? "" : "DEADLINE_EXCEEDED"};
    }
    model_.answered(call->request, outcomes, ofHardware);
  }

  // The hardware has room again, and programs also what it had no room for.
  void recover() {
    agent->flowCapacityIs(std::nullopt);
    agent->groupCapacityIs(std::nullopt);
    agent->automaticIs(true);
    agent->run();
    for (const auto* const one : service->groups()) {
      agent->groupStatusIs(one->id(), OpenFlowTable::GroupStatus::ready_);
    }
    for (const Sim::FlowView& flow : service->flows()) {
      agent->flowStatusIs(*flow.name, OpenFlowTable::FlowStatus::programmed_);
    }
    service->settle();
    timers.pass(0);
  }

  RandomUpdates random_{std::mt19937{1}};
  Model model_;
  std::set<std::string> seen_;
};

TEST_F(EngineRandom, HoldsWhatTheModelHoldsAndLeavesNothingBehind) {
  const int writes = threadSanitized ? 300 : 1200;
  for (int number = 0; number < writes && !HasFailure(); ++number) {
    SCOPED_TRACE("write " + std::to_string(number));
    if (number % 100 == 0) {
      commitShipped();
      model_ = {};
    } else if (random_.oneIn(8)) {
      // The same pipeline keeps everything.
      EXPECT_TRUE(setPipeline(SetPipeline::RECONCILE_AND_COMMIT, shippedP4Info()).ok());
    }
    changeHardware(random_);
    WriteRequest request = random_.write(model_, number / 100 % 2 == 1);
    // Hardware that is late or full may refuse to restore what was there.
    if (!hardwareTakesAll()) {
      request.set_atomicity(WriteRequest::CONTINUE_ON_ERROR);
    }
    carryThrough(begin(request));
    EXPECT_EQ(everything(), model_.everything());
    engine->verify();
    recover();
    engine->verify();
    EXPECT_EQ(agent->flowsProgrammed(), service->flows().size());
    EXPECT_EQ(agent->groupsProgrammed(), service->groups().size());
  }
  EXPECT_THAT(seen_, testing::IsSupersetOf({"OK", "NOT_FOUND", "ALREADY_EXISTS", "INVALID_ARGUMENT",
                                            "ABORTED", "INVALID_ARGUMENT/15", "FAILED_PRECONDITION",
                                            "FAILED_PRECONDITION/15", "FAILED_PRECONDITION/16",
                                            "OUT_OF_RANGE", "UNIMPLEMENTED", "RESOURCE_EXHAUSTED/1",
                                            "DEADLINE_EXCEEDED"}));
}

}  // namespace
}  // namespace P4rtTest
