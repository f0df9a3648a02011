// Random batches of all kinds against a model of what is to be stored, on hardware that is full, late or broken.
// After every batch everything is read back, and the switch's own tables, groups and VRFs are looked at. Now
// and then the process dies, also in the middle of a batch, and another one goes on with what it has kept.
#include <unistd.h>

#include <optional>
#include <random>
#include <set>

#include "EngineFixture.h"
#include "tests/Sanitizers.h"

namespace P4rtTest {
namespace {

// What an entity uses.
struct Uses {
  std::set<int> members;
  std::set<int> groups;
  bool oneShot = false;
};

// What is stored, by the key that an update names, as it is read back.
class Model {
 public:
  struct Entity {
    std::string text{};      // of a member or group
    std::string action{};    // of an entry, and
    std::string metadata{};  // what else it has
    Uses uses{};
    bool hasMembers = false;
  };
  // An update with all that the model needs to know of it.
  struct Step {
    Update::Type type = Update::INSERT;
    std::string key;
    std::string wire{};
    Entity entity{};
    std::string fault{};  // what is wrong with it whatever is stored
    bool keepsAction = false;
  };

  // The code that the update is to have if the hardware takes it.
  [[nodiscard]] std::string expected(const Step& step) const {
    const bool there = stored_.contains(step.key);
    if (step.type == Update::INSERT && there) {
      return "ALREADY_EXISTS";
    }
    if (step.type != Update::INSERT && !there) {
      return "NOT_FOUND";
    }
    if (step.type == Update::DELETE) {
      return isUsed(step.key) ? "FAILED_PRECONDITION" : "OK";
    }
    if (step.keepsAction) {
      return "OK";
    }
    if (const std::string style = styleFault(step); !style.empty()) {
      return style;
    }
    for (const int id : step.entity.uses.members) {
      if (!stored_.contains("m" + std::to_string(id))) {
        return "NOT_FOUND";
      }
    }
    for (const int id : step.entity.uses.groups) {
      if (!stored_.contains("g" + std::to_string(id))) {
        return "NOT_FOUND";
      }
    }
    if (!step.fault.empty()) {
      return step.fault;
    }
    if (step.key[0] == 'g' && step.type == Update::MODIFY && !step.entity.hasMembers &&
        stored_.at(step.key).hasMembers) {
      return "UNIMPLEMENTED";
    }
    for (const int id : step.entity.uses.groups) {
      if (!stored_.at("g" + std::to_string(id)).hasMembers) {
        return "FAILED_PRECONDITION/16";
      }
    }
    return "OK";
  }

  void apply(const Step& step) {
    if (step.type == Update::DELETE) {
      stored_.erase(step.key);
    } else if (step.keepsAction) {
      stored_.at(step.key).metadata = step.entity.metadata;
    } else {
      stored_[step.key] = step.entity;
    }
  }

  // An entry of the ACL (a1) or of the ECMP table (r1).
  static std::string entry(const std::string& key, const std::string& action,
                           const std::string& metadata) {
    const int number = std::stoi(key.substr(1));
    if (key[0] == 'a') {
      return acl(number, action + metadata);
    }
    std::string text = route(number, "");
    text.resize(text.rfind("action {"));
    return text + action + metadata + " }";
  }

  [[nodiscard]] Words everything() const {
    Words all;
    for (const auto& [key, entity] : stored_) {
      all.push_back(
          shown(entity.text.empty() ? entry(key, entity.action, entity.metadata) : entity.text));
    }
    std::sort(all.begin(), all.end());
    return all;
  }

 private:
  [[nodiscard]] bool isUsed(const std::string& key) const {
    const int id = std::stoi(key.substr(1));
    return std::any_of(stored_.begin(), stored_.end(), [&](const auto& one) {
      return (key[0] == 'm' && one.second.uses.members.contains(id)) ||
             (key[0] == 'g' && one.second.uses.groups.contains(id));
    });
  }
  [[nodiscard]] std::string styleFault(const Step& step) const {
    bool oneShots = false;
    bool others = false;
    for (const auto& [key, entity] : stored_) {
      oneShots = oneShots || entity.uses.oneShot;
      others = others || key[0] == 'm' || key[0] == 'g';
    }
    if (step.entity.uses.oneShot) {
      return others ? "INVALID_ARGUMENT" : "";
    }
    if (step.key[0] == 'r' && oneShots) {
      return "INVALID_ARGUMENT";
    }
    // Members and groups are looked at first; what is wrong with a member's action comes from the switch.
    // A group of members that are not there is refused for that.
    const bool inProfile = step.key[0] == 'm' || step.key[0] == 'g';
    return inProfile && oneShots && step.type == Update::INSERT && step.entity.uses.members.empty()
               ? "INVALID_ARGUMENT"
               : "";
  }

  std::map<std::string, Entity> stored_;
};

class EngineRandom : public Programmed {
 protected:
  EngineRandom() : Programmed{"p4rt-random-" + std::to_string(::getpid())} {}

  int upTo(int most) { return std::uniform_int_distribution<int>{0, most}(random_); }
  bool oneIn(int chances) { return upTo(chances - 1) == 0; }

  Model::Step step() {
    switch (upTo(9)) {
      case 0:
        return memberStep();
      case 1:
        return groupStep();
      case 2:
      case 3:
        return routeStep();
      default:
        return aclStep();
    }
  }

  Update::Type type() { return static_cast<Update::Type>(1 + upTo(2)); }

  void finishEntry(Model::Step& made, const std::string& action) {
    const std::string metadata = oneIn(3) ? " metadata: '" + octal(1 + upTo(3)) + "'" : "";
    made.keepsAction = made.type == Update::MODIFY && oneIn(4);
    made.entity.action = action;
    made.entity.metadata = metadata;
    made.wire = Model::entry(made.key, made.keepsAction ? "" : action, metadata);
  }

  Model::Step aclStep() {
    Model::Step made{.type = type(), .key = "a" + std::to_string(upTo(11))};
    std::string action;
    switch (upTo(7)) {
      case 0:
        action = drop();
        break;
      case 1:
        action = forward(upTo(2));
        made.fault = action == forward(0) ? "INVALID_ARGUMENT/15" : "";
        break;
      case 2: {
        const int id = 1 + upTo(3);
        action = does(0x0a, {octal(id), octal(1 + upTo(2))});
        made.entity.uses.groups = {id};
        break;
      }
      case 3: {
        const int id = 1 + upTo(3);
        action = does(9, {octal(id)});
        made.entity.uses.members = {id};
        break;
      }
      case 4: {
        const int port = upTo(2);
        action = does(5, {octal(1 + upTo(2)), octal(port)});
        made.fault = port == 0 ? "INVALID_ARGUMENT/15" : "";
        break;
      }
      case 5:
        action = does(6, {octal(17)});
        made.fault = "OUT_OF_RANGE";
        break;
      default:
        action = does(4, {octal(1 + upTo(2))});
        break;
    }
    finishEntry(made, action);
    return made;
  }

  Model::Step routeStep() {
    Model::Step made{.type = type(), .key = "r" + std::to_string(upTo(5))};
    std::string action;
    const int id = 1 + upTo(3);
    if (oneIn(2)) {
      std::vector<std::pair<std::string, int>> actions;
      for (int count = 1 + upTo(2); count > 0; --count) {
        const bool bad = oneIn(8);
        actions.emplace_back(nexthop(bad ? 8 : 9, 1 + upTo(1)), 1 + upTo(2));
        made.fault = bad ? "FAILED_PRECONDITION/15" : made.fault;
      }
      action = "action { " + oneShot(actions) + " }";
      made.entity.uses.oneShot = true;
    } else if (oneIn(2)) {
      action = "action { action_profile_member_id: " + std::to_string(id) + " }";
      made.entity.uses.members = {id};
    } else {
      action = "action { action_profile_group_id: " + std::to_string(id) + " }";
      made.entity.uses.groups = {id};
    }
    finishEntry(made, action);
    return made;
  }

  Model::Step memberStep() {
    const int id = 1 + upTo(3);
    Model::Step made{.type = type(), .key = "m" + std::to_string(id)};
    const bool bad = oneIn(6);
    made.entity.text = member(id, nexthop(bad ? 8 : 9, 1 + upTo(1)));
    made.wire = made.entity.text;
    made.fault = bad ? "FAILED_PRECONDITION/15" : "";
    return made;
  }

  Model::Step groupStep() {
    const int id = 1 + upTo(3);
    Model::Step made{.type = type(), .key = "g" + std::to_string(id)};
    std::vector<std::pair<int, int>> members;
    int weights = 0;
    for (int one = 1; one <= 4; ++one) {
      if (oneIn(3)) {
        members.emplace_back(one, 1 + upTo(2));
        weights += members.back().second;
        made.entity.uses.members.insert(one);
      }
    }
    made.entity.hasMembers = !members.empty();
    made.fault = weights > 8 ? "RESOURCE_EXHAUSTED" : "";
    made.entity.text = group(id, members);
    made.wire = made.entity.text;
    return made;
  }

  // Automatic, full, or late: programmed when the test says so, at random, or not in time.
  void moodIs() {
    agent->automaticIs(!oneIn(4));
    agent->flowCapacityIs(oneIn(3) ? std::optional<std::size_t>(upTo(12)) : std::nullopt);
    agent->groupCapacityIs(oneIn(4) ? std::optional<std::size_t>(upTo(8)) : std::nullopt);
  }
  // Lets the hardware answer, or time pass, until the write is answered.
  void carryThrough(const WriteCall& call) {
    for (int round = 0; !call->done && round < 200; ++round) {
      if (!oneIn(4)) {
        agent->run();
        service->settle();
        timers.pass(0);
      } else {
        timers.pass(upTo(2500));
      }
    }
    EXPECT_TRUE(call->done);
  }

  // What the hardware may answer instead of OK.
  bool hardwareMay(const std::string& outcome) const {
    return (!agent->automatic() && outcome == "DEADLINE_EXCEEDED") ||
           outcome == "RESOURCE_EXHAUSTED/1" || outcome == "FAILED_PRECONDITION/16";
  }
  // Whether nothing but the request decides.
  [[nodiscard]] bool kind() const {
    return agent->automatic() && !agent->flowCapacity() && !agent->groupCapacity();
  }

  void compare(const std::vector<Model::Step>& steps, const Words& outcomes, bool rollback) {
    Model next = model_;
    bool failed = false;
    for (std::size_t at = 0; at < steps.size(); ++at) {
      const std::string outcome = outcomes.size() == 1 && outcomes[0] == "OK" ? "OK" : outcomes[at];
      if (rollback && outcome == "ABORTED") {
        seen_.insert(outcome);
        failed = true;
        continue;
      }
      seen_.insert(outcome);
      const std::string expected = next.expected(steps[at]);
      if (outcome != expected && !(rollback && failed)) {
        EXPECT_TRUE(expected == "OK" && !kind_ && hardwareMay(outcome))
            << at << ": " << steps[at].wire << "\n expected " << expected << ", was " << outcome;
      }
      failed = failed || outcome != "OK";
      if (outcome == "OK") {
        next.apply(steps[at]);
      }
    }
    if (!rollback || !failed) {
      model_ = next;
    }
  }

  // The process dies before the batch is through, if it takes that long. A first part of the updates stands
  // then, or of a batch that rolls back all or none.
  void crash(const std::vector<Model::Step>& steps, const WriteCall& call, bool rollback) {
    for (int round = upTo(6); !call->done && round > 0; --round) {
      agent->run();
      service->settle();
      timers.pass(0);
    }
    if (call->done) {
      compare(steps, wordsOf(call->status), rollback);
    }
    const bool answered = call->done;
    restart();
    const Words seen = everything();
    Model next = model_;
    bool found = seen == next.everything();
    if (found) {
      return;
    }
    bool whole = true;
    for (const Model::Step& step : steps) {
      if (next.expected(step) == "OK") {
        next.apply(step);
        found = found || (!rollback && seen == next.everything());
      } else {
        whole = false;
      }
      if (found) {
        break;
      }
    }
    found = found || (rollback && whole && seen == next.everything());
    EXPECT_TRUE(found && !answered) << testing::PrintToString(seen) << "\n before "
                                    << testing::PrintToString(model_.everything());
    seen_.insert("a part of a batch");
    model_ = next;
  }

  // The hardware has room and answers again, also for what it had no room for.
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

  std::mt19937 random_;
  Model model_;
  bool kind_ = true;  // of the batch under way
  std::set<std::string> seen_;
};

TEST_F(EngineRandom, HoldsWhatTheModelHoldsAndLeavesNothingBehind) {
  const int seeds = 3;
  const int batches = TestSupport::threadSanitized ? 100 : 400;
  for (int seed = 1; seed <= seeds; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    random_.seed(static_cast<std::uint32_t>(seed));
    for (int batch = 0; batch < batches && !HasFailure(); ++batch) {
      SCOPED_TRACE("batch " + std::to_string(batch));
      const bool crashes = oneIn(6);
      moodIs();
      if (crashes) {
        agent->automaticIs(false);
        agent->flowCapacityIs(std::nullopt);
        agent->groupCapacityIs(std::nullopt);
      }
      kind_ = crashes || kind();
      std::vector<Model::Step> steps;
      std::vector<Update> updates;
      for (int count = 1 + upTo(11); count > 0; --count) {
        steps.push_back(step());
        updates.push_back(update(steps.back().type, steps.back().wire));
      }
      const bool rollback = oneIn(4) && kind_;
      const WriteCall call = begin(updates, rollback ? p4::v1::WriteRequest::ROLLBACK_ON_ERROR
                                                     : p4::v1::WriteRequest::CONTINUE_ON_ERROR);
      if (crashes) {
        crash(steps, call, rollback);
      } else {
        carryThrough(call);
        compare(steps, wordsOf(call->status), rollback);
      }
      EXPECT_EQ(everything(), model_.everything());
      engine->verify();
      recover();
      engine->verify();
    }
  }
  EXPECT_THAT(seen_, testing::IsSupersetOf({"OK", "NOT_FOUND", "ALREADY_EXISTS", "INVALID_ARGUMENT",
                                            "ABORTED", "INVALID_ARGUMENT/15", "FAILED_PRECONDITION",
                                            "FAILED_PRECONDITION/15", "FAILED_PRECONDITION/16",
                                            "OUT_OF_RANGE", "UNIMPLEMENTED", "RESOURCE_EXHAUSTED/1",
                                            "DEADLINE_EXCEEDED", "a part of a batch"}));
}

}  // namespace
}  // namespace P4rtTest
