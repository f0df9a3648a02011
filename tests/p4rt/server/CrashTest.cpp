// An ostra-p4rt that is killed at any moment while a controller writes, and goes on with what it has kept.
//
// OSTRA_CRASH_ROUNDS and OSTRA_CRASH_SEED in the environment make it longer and other.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/p4rt/Entities.h"
#include "tests/p4rt/server/TestProgram.h"

namespace P4rtTest {
namespace {

using p4::v1::Entity;
using p4::v1::WriteRequest;
using SetPipeline = p4::v1::SetForwardingPipelineConfigRequest;

unsigned setting(const char* name, unsigned otherwise) {
  const char* const value = std::getenv(name);
  return value == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(value, nullptr, 10));
}

// The cookie of a pipeline says what it is like: whether its action profile takes one shots, and whether it
// lacks the table l3Acl.
bool takesOneShots(std::uint64_t cookie) { return (cookie & 1U) != 0; }
bool isReduced(std::uint64_t cookie) { return (cookie & 2U) != 0; }

// What an entity is named by, as text.
std::string keyOf(Entity entity) {
  if (entity.has_table_entry()) {
    entity.mutable_table_entry()->clear_action();
    entity.mutable_table_entry()->clear_metadata();
    entity.mutable_table_entry()->clear_controller_metadata();
  } else if (entity.has_action_profile_group()) {
    return "group " + std::to_string(entity.action_profile_group().group_id());
  } else {
    return "member " + std::to_string(entity.action_profile_member().member_id());
  }
  return entity.ShortDebugString();
}

unsigned numberOf(const std::string& bytes) {
  unsigned number = 0;
  for (const char byte : bytes) {
    number = number << 8U | static_cast<unsigned char>(byte);
  }
  return number;
}

constexpr std::uint32_t intoVrf = 0x01000004;
constexpr std::uint32_t toGroupInVrf = 0x0100000a;

std::vector<std::string> usesOf(const Entity& entity) {
  std::vector<std::string> uses;
  const auto group = [&](auto id) { uses.push_back("group " + std::to_string(id)); };
  const auto member = [&](auto id) { uses.push_back("member " + std::to_string(id)); };
  for (const auto& one : entity.action_profile_group().members()) {
    member(one.member_id());
  }
  const p4::v1::TableAction& action = entity.table_entry().action();
  if (action.has_action_profile_member_id()) {
    member(action.action_profile_member_id());
  } else if (action.has_action_profile_group_id()) {
    group(action.action_profile_group_id());
  } else if (action.action().action_id() == toGroupInVrf) {
    group(numberOf(action.action().params(0).value()));
  }
  return uses;
}

// What a controller knows of the switch.
struct State {
  std::map<std::string, Entity> entities{};
  std::uint64_t cookie = 0;

  [[nodiscard]] bool holds(const std::string& key) const { return entities.contains(key); }
  [[nodiscard]] bool isUsed(const std::string& key) const {
    for (const auto& [other, entity] : entities) {
      const auto uses = usesOf(entity);
      if (std::find(uses.begin(), uses.end(), key) != uses.end()) {
        return true;
      }
    }
    return false;
  }

  // Whether the server takes the update; it has its effect then.
  bool apply(const Update& update) {
    const std::string key = keyOf(update.entity());
    if (holds(key) == (update.type() == Update::INSERT)) {
      return false;
    }
    if (update.type() == Update::DELETE) {
      return !isUsed(key) && entities.erase(key) == 1;
    }
    const Entity& entity = update.entity();
    if (entity.has_table_entry() && !entity.table_entry().has_action()) {
      p4::v1::TableEntry& entry = *entities[key].mutable_table_entry();
      entry.set_metadata(entity.table_entry().metadata());
      entry.set_controller_metadata(entity.table_entry().controller_metadata());
      return true;
    }
    for (const std::string& used : usesOf(entity)) {
      if (!holds(used)) {
        return false;
      }
    }
    entities[key] = entity;
    return true;
  }
  [[nodiscard]] static State committed(std::uint64_t next) { return {{}, next}; }
  [[nodiscard]] State reconciled(std::uint64_t next) const {
    State state{entities, next};
    std::erase_if(state.entities, [&](const auto& one) {
      return isReduced(next) && one.second.table_entry().table_id() == l3AclId;
    });
    return state;
  }

  [[nodiscard]] std::multiset<std::string> texts() const {
    std::multiset<std::string> all;
    for (const auto& [key, entity] : entities) {
      all.insert(text(entity));
    }
    return all;
  }
  // How many entries the switch stores, groups Corvex has, and users each VRF.
  [[nodiscard]] std::string picture() const {
    std::size_t entries = 0;
    std::size_t groups = 0;
    std::map<unsigned, unsigned> vrfs;
    for (const auto& [key, entity] : entities) {
      const p4::v1::TableAction& action = entity.table_entry().action();
      const auto shots = action.action_profile_action_set().action_profile_actions_size();
      groups +=
          entity.has_table_entry() ? (shots > 0 ? 1 + static_cast<std::size_t>(shots) : 0) : 1;
      entries += entity.has_table_entry() ? 1 : 0;
      if (action.action().action_id() == intoVrf) {
        ++vrfs[numberOf(action.action().params(0).value())];
      } else if (action.action().action_id() == toGroupInVrf) {
        ++vrfs[numberOf(action.action().params(1).value())];
      }
    }
    std::string told = std::to_string(entries) + " entries, " + std::to_string(groups) + " groups";
    for (const auto& [vrf, users] : vrfs) {
      told += ", vrf " + std::to_string(vrf) + ": " + std::to_string(users);
    }
    return told;
  }
};

// What is asked for: a Write, or with an action something of the pipeline.
struct Request {
  WriteRequest write{};
  SetPipeline::Action action = SetPipeline::UNSPECIFIED;
  std::uint64_t cookie = 0;
};

class P4rtCrash : public testing::Test {
 protected:
  ~P4rtCrash() override {
    if (program_) {
      program_->process.kill(SIGTERM);
      program_->process.finish();
    }
    (void)CliTest::sim("", {"--shm", name_, "--discard"});
  }

  int below(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }

  void start(const std::string& how) {
    program_.emplace(CliTest::Arguments{"--console", "--shm", name_, how});
    controller_.emplace(program_->address(), Id{1});
    controller_->claim();
    ASSERT_EQ(controller_->standing(), "primary 1");
  }
  void kill() {
    program_->process.kill(SIGKILL);
    program_->process.finish();
  }

  // Requests.

  Request request() {
    const int kind = below(24);
    if (kind == 0) {
      return {.action = SetPipeline::VERIFY_AND_SAVE, .cookie = freshCookie(false)};
    }
    if (kind == 1 || state_.cookie == 0) {
      return {.action = SetPipeline::VERIFY_AND_COMMIT, .cookie = freshCookie(false)};
    }
    if (kind == 2) {
      return {.action = SetPipeline::RECONCILE_AND_COMMIT, .cookie = freshCookie(true)};
    }
    if (kind == 3) {
      return {.action = SetPipeline::COMMIT};
    }
    Request made;
    if (below(3) == 0) {
      made.write.set_atomicity(WriteRequest::ROLLBACK_ON_ERROR);
    }
    State next = state_;
    for (int count = 1 + below(12); count > 0; --count) {
      Update update = this->update(next);
      if (next.apply(update) || below(8) == 0) {
        *made.write.add_updates() = std::move(update);
      }
    }
    return made;
  }

  std::uint64_t freshCookie(bool sameStyle) {
    const std::uint64_t style = sameStyle ? state_.cookie & 1U : random_() & 1U;
    return ++cookies_ << 2U | (random_() & 2U) | style;
  }

  Update update(const State& state) {
    const auto type = static_cast<Update::Type>(1 + below(3));
    const bool oneShots = takesOneShots(state.cookie);
    const int kind = below(10);
    if (kind < 2 && !oneShots) {
      return P4rtTest::update(type, member(1 + below(5), nexthop(1 + below(4), 1 + below(8))));
    }
    if (kind < 4 && !oneShots) {
      std::vector<std::pair<int, int>> members;
      for (int id = 1; id <= 5; ++id) {
        if (below(2) == 0 && state.holds("member " + std::to_string(id))) {
          members.emplace_back(id, 1 + below(3));
        }
      }
      if (!members.empty()) {
        return P4rtTest::update(type, group(1 + below(4), members, 20));
      }
    }
    Update made = P4rtTest::update(type, kind < 6 ? route(below(12), routeAction(oneShots))
                                                  : acl(below(30), aclAction(oneShots)));
    p4::v1::TableEntry& entry = *made.mutable_entity()->mutable_table_entry();
    if (kind == 9 && !isReduced(state.cookie)) {
      entry.set_table_id(l3AclId);
    }
    entry.set_metadata(std::string(below(3) == 0 ? static_cast<std::size_t>(below(600)) : 0, 'm'));
    if (type == Update::MODIFY && below(3) == 0) {
      entry.clear_action();
    } else {
      entry.set_controller_metadata(random_() & 0xFFU);
    }
    return made;
  }

  std::string routeAction(bool oneShots) {
    if (!oneShots) {
      return below(2) == 0 ? "action_profile_member_id: " + std::to_string(1 + below(5))
                           : "action_profile_group_id: " + std::to_string(1 + below(4));
    }
    std::vector<std::pair<std::string, int>> actions;
    for (int count = 1 + below(3); count > 0; --count) {
      actions.emplace_back(nexthop(1 + below(4), 1 + below(8)), 1 + below(3));
    }
    return oneShot(actions);
  }
  std::string aclAction(bool oneShots) {
    switch (below(oneShots ? 3 : 4)) {
      case 0:
        return drop();
      case 1:
        return forward(1 + below(8));
      case 2:
        return does(4, {octal(1 + below(4))});
      default:
        return does(10, {octal(1 + below(4)), octal(1 + below(4))});
    }
  }

  // Asks, and takes the answer; false when there is none.
  bool ask(const Request& request) {
    const auto context = newContext();
    grpc::Status status;
    if (request.action == SetPipeline::UNSPECIFIED) {
      WriteRequest write = request.write;
      write.set_device_id(1);
      write.mutable_election_id()->set_low(1);
      p4::v1::WriteResponse response;
      status = controller_->stub().Write(context.get(), write, &response);
    } else {
      p4::v1::SetForwardingPipelineConfigResponse response;
      status = controller_->stub().SetForwardingPipelineConfig(context.get(), pipeline(request),
                                                               &response);
    }
    if (!status.ok() && status.error_details().empty() && codeOf(status) != Code::notFound_) {
      EXPECT_TRUE(killing_) << status.error_message();
      return false;
    }
    if (request.action == SetPipeline::UNSPECIFIED) {
      takeWrite(request.write, status);
      return true;
    }
    std::optional<std::uint64_t> cookie = request.cookie;
    if (request.action == SetPipeline::COMMIT) {
      cookie = status.ok() ? observeCookie() : 0;
    } else {
      EXPECT_TRUE(status.ok()) << status.error_message();
    }
    if (cookie) {
      takePipeline(request.action, *cookie);
    }
    return cookie.has_value();
  }

  SetPipeline pipeline(const Request& request) {
    SetPipeline made = pipelineRequest();
    made.set_action(request.action);
    made.mutable_config()->mutable_cookie()->set_cookie(request.cookie);
    if (request.action == SetPipeline::COMMIT) {
      made.clear_config();
    } else if (isReduced(request.cookie)) {
      auto& tables = *made.mutable_config()->mutable_p4info()->mutable_tables();
      tables.DeleteSubrange(1, 1);
    }
    return made;
  }

  void takeWrite(const WriteRequest& write, const grpc::Status& status) {
    State next = state_;
    bool whole = true;
    std::vector<bool> taken;
    for (const Update& update : write.updates()) {
      taken.push_back(next.apply(update));
      whole = whole && taken.back();
    }
    const bool rollsBack = write.atomicity() == WriteRequest::ROLLBACK_ON_ERROR;
    EXPECT_EQ(status.ok(), whole) << write.ShortDebugString();
    const auto errors = status.ok() ? std::vector<p4::v1::Error>{} : errorsOf(status);
    for (std::size_t at = 0; at < errors.size() && !rollsBack; ++at) {
      EXPECT_EQ(errors[at].canonical_code() == 0, taken[at])
          << errors[at].message() << write.updates(static_cast<int>(at)).ShortDebugString();
    }
    if (whole || !rollsBack) {
      state_ = next;
    }
  }

  void takePipeline(SetPipeline::Action action, std::uint64_t cookie) {
    if (action == SetPipeline::VERIFY_AND_SAVE) {
      saved_ = {cookie};
      return;
    }
    if (action == SetPipeline::COMMIT) {
      EXPECT_TRUE(saved_.contains(cookie)) << cookie;
    }
    saved_ = {0};
    if (action == SetPipeline::RECONCILE_AND_COMMIT) {
      state_ = state_.reconciled(cookie);
    } else if (cookie != 0) {
      state_ = State::committed(cookie);
    }
  }

  // What the request that was not answered may have made of the state.
  std::vector<State> outcomes() {
    std::vector<State> states{state_};
    if (!unanswered_) {
      return states;
    }
    const Request& request = *unanswered_;
    switch (request.action) {
      case SetPipeline::VERIFY_AND_COMMIT:
        states.push_back(State::committed(request.cookie));
        break;
      case SetPipeline::RECONCILE_AND_COMMIT:
        states.push_back(state_.reconciled(request.cookie));
        break;
      case SetPipeline::COMMIT:
        for (const std::uint64_t cookie : saved_) {  // of none it is refused, which changes nothing
          states.push_back(State::committed(cookie));
        }
        break;
      case SetPipeline::VERIFY_AND_SAVE:
        saved_.insert(request.cookie);
        break;
      default:
        State next = state_;
        bool whole = true;
        for (const Update& update : request.write.updates()) {
          whole = next.apply(update) && whole;
          states.push_back(next);
        }
        if (request.write.atomicity() == WriteRequest::ROLLBACK_ON_ERROR) {
          states = whole ? std::vector{state_, next} : std::vector{state_};
        }
    }
    return states;
  }

  // What is there.

  // Nothing when it has died.
  std::optional<std::uint64_t> observeCookie() {
    p4::v1::GetForwardingPipelineConfigRequest request;
    request.set_device_id(1);
    p4::v1::GetForwardingPipelineConfigResponse response;
    const auto context = newContext();
    if (!controller_->stub().GetForwardingPipelineConfig(context.get(), request, &response).ok()) {
      EXPECT_TRUE(killing_);
      return std::nullopt;
    }
    const std::uint64_t cookie = response.config().cookie().cookie();
    EXPECT_EQ(response.config().p4info().tables_size(), cookie == 0         ? 0
                                                        : isReduced(cookie) ? 3
                                                                            : 4);
    return cookie;
  }
  std::multiset<std::string> observe(bool programmed) {
    p4::v1::ReadRequest request;
    request.set_device_id(1);
    request.add_entities()->mutable_table_entry();
    request.add_entities()->mutable_action_profile_member();
    request.add_entities()->mutable_action_profile_group();
    const auto context = newContext();
    const auto reader = controller_->stub().Read(context.get(), request);
    std::multiset<std::string> all;
    for (p4::v1::ReadResponse response; reader->Read(&response);) {
      for (const Entity& entity : response.entities()) {
        all.insert(text(entity));
      }
    }
    EXPECT_EQ(reader->Finish().ok(), programmed);
    return all;
  }
  std::string observePicture() {
    const auto show = [this](const std::string& topic) {
      return CliTest::Json::parse(program_->type("show " + topic));
    };
    const CliTest::Json stored = show("entries");
    std::size_t entries = 0;
    for (const auto& table : stored["tables"]) {
      entries += table["entries"].size();
    }
    std::string told = std::to_string(entries) + " entries, " +
                       std::to_string(show("groups")["groups"].size()) + " groups";
    const CliTest::Json vrfs = show("vrfs");
    for (const auto& vrf : vrfs["vrfs"]) {
      told += ", vrf " + vrf["vrf"].dump() + ": " + vrf["refCount"].dump();
    }
    return told;
  }
  static std::string difference(const std::multiset<std::string>& from,
                                const std::multiset<std::string>& without) {
    std::vector<std::string> lines;
    std::set_difference(from.begin(), from.end(), without.begin(), without.end(),
                        std::back_inserter(lines));
    return testing::PrintToString(lines);
  }

  // Everything answered is there, and of the rest a first part; of what rolls back all or nothing.
  void compare() {
    const State before = state_;
    const std::vector<State> possible = outcomes();
    const std::uint64_t cookie = observeCookie().value();
    const auto seen = observe(cookie != 0);
    const auto found = std::find_if(possible.begin(), possible.end(), [&](const State& state) {
      return state.cookie == cookie && state.texts() == seen;
    });
    ASSERT_NE(found, possible.end())
        << "cookie " << before.cookie << " and now " << cookie
        << "; not answered for: " << difference(seen, before.texts())
        << "\nanswered for and missing: " << difference(before.texts(), seen)
        << "\nunanswered: " << (unanswered_ ? unanswered_->write.ShortDebugString() : "nothing");
    state_ = *found;
    if (state_.cookie != before.cookie) {
      saved_ = {0};
    }
    unanswered_.reset();
    EXPECT_EQ(observePicture(), state_.picture());
    EXPECT_THAT(program_->type("audit"), testing::HasSubstr("\"findings\":[]"));
  }

  void round() {
    if (below(5) == 0) {  // dies while it goes on
      const CliTest::Process other{
          OSTRA_P4RT_PROGRAM,
          {"--json", "--listen", "127.0.0.1:0", "--no-console", "--shm", name_, "--resume"}};
      std::this_thread::sleep_for(std::chrono::microseconds{below(60'000)});
      other.kill(SIGKILL);
    }
    ASSERT_NO_FATAL_FAILURE(start("--resume"));
    killing_ = false;
    ASSERT_NO_FATAL_FAILURE(compare());
    std::thread killer{[this, delay = std::chrono::microseconds{below(30'000)}] {
      std::this_thread::sleep_for(delay);
      killing_ = true;
      program_->process.kill(SIGKILL);
    }};
    for (bool answered = true; answered && !HasFailure();) {
      Request next = request();
      answered = ask(next);
      if (!answered) {
        unanswered_ = std::move(next);
      }
    }
    killer.join();
    program_->process.finish();
    controller_.reset();
    program_.reset();
  }

  const std::string name_ = "p4rt-crash-test-" + std::to_string(::getpid());
  std::mt19937 random_{setting("OSTRA_CRASH_SEED", 1)};
  std::optional<Program> program_;
  std::optional<Controller> controller_;
  std::atomic<bool> killing_ = false;
  State state_;
  std::set<std::uint64_t> saved_{0};  // cookies of the configuration that may be saved; 0 for none
  std::uint64_t cookies_ = 0;
  std::optional<Request> unanswered_;
};

TEST_F(P4rtCrash, WhatWasAnsweredStandsAndNothingElseIsTorn) {
  ASSERT_NO_FATAL_FAILURE(start("--discard"));
  kill();
  const unsigned rounds = setting("OSTRA_CRASH_ROUNDS", 20);
  for (unsigned number = 0; number < rounds && !HasFailure(); ++number) {
    SCOPED_TRACE("round " + std::to_string(number));
    ASSERT_NO_FATAL_FAILURE(round());
  }
}

}  // namespace
}  // namespace P4rtTest
