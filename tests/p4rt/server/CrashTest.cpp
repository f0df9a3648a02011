// An ostra-p4rt that is killed at any moment while a controller writes, and goes on with what it
// has kept.
//
// OSTRA_CRASH_ROUNDS and OSTRA_CRASH_SEED in the environment make it longer and other.


#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/UniqueName.h"
#include "tests/p4rt/Model.h"
#include "tests/p4rt/server/TestProgram.h"

namespace P4rtTest {
namespace {

using SetPipeline = p4::v1::SetForwardingPipelineConfigRequest;

unsigned setting(const char* name, unsigned otherwise) {
  const char* const value = std::getenv(name);
  return value == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(value, nullptr, 10));
}

// The cookie of a pipeline says what it is like: whether its action profile takes one shots, and
// whether it lacks the table l3Acl.
bool takesOneShots(std::uint64_t cookie) { return (cookie & 1U) != 0; }
bool isReduced(std::uint64_t cookie) { return (cookie & 2U) != 0; }

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

  Request request() {
    const int kind = random_.below(24);
    if (kind == 0) {
      return {.action = SetPipeline::VERIFY_AND_SAVE, .cookie = freshCookie(false)};
    }
    if (kind == 1 || cookie_ == 0) {
      return {.action = SetPipeline::VERIFY_AND_COMMIT, .cookie = freshCookie(false)};
    }
    if (kind == 2) {
      return {.action = SetPipeline::RECONCILE_AND_COMMIT, .cookie = freshCookie(true)};
    }
    if (kind == 3) {
      return {.action = SetPipeline::COMMIT};
    }
    Request made{.write = random_.write(model_, takesOneShots(cookie_), !isReduced(cookie_))};
    made.write.set_device_id(1);
    made.write.mutable_election_id()->set_low(1);
    return made;
  }

  std::uint64_t freshCookie(bool sameStyle) {
    const auto style = sameStyle ? cookie_ & 1U : static_cast<std::uint64_t>(random_.below(2));
    return ++cookies_ << 2U | static_cast<std::uint64_t>(2 * random_.below(2)) | style;
  }

  // Asks, and takes the answer; false when there is none.
  bool ask(const Request& request) {
    const auto context = newContext();
    grpc::Status status;
    if (request.action == SetPipeline::UNSPECIFIED) {
      p4::v1::WriteResponse response;
      status = controller_->stub().Write(context.get(), request.write, &response);
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
    Words outcomes{"OK"};
    if (!status.ok()) {
      outcomes.clear();
      for (const p4::v1::Error& error : errorsOf(status)) {
        outcomes.push_back(wordOf(error));
      }
    }
    model_.answered(write, outcomes, [](const auto&) { return false; });
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
    if (cookie != 0) {
      model_ = modelUnder(action, cookie);
      cookie_ = cookie;
    }
  }
  // What a pipeline leaves.
  [[nodiscard]] Model modelUnder(SetPipeline::Action action, std::uint64_t cookie) const {
    if (action != SetPipeline::RECONCILE_AND_COMMIT) {
      return {};
    }
    return isReduced(cookie) ? model_.without(l3AclId) : model_;
  }

  // What the request that was not answered may have made, with the cookie of the pipeline.
  std::vector<std::pair<std::uint64_t, Model>> outcomes() {
    std::vector<std::pair<std::uint64_t, Model>> all{{cookie_, model_}};
    if (!unanswered_) {
      return all;
    }
    const Request& request = *unanswered_;
    if (request.action == SetPipeline::UNSPECIFIED) {
      for (Model& model : model_.outcomes(request.write)) {
        all.emplace_back(cookie_, std::move(model));
      }
    } else if (request.action == SetPipeline::VERIFY_AND_SAVE) {
      saved_.insert(request.cookie);
    } else if (request.action == SetPipeline::COMMIT) {
      for (const std::uint64_t cookie : saved_) {
        all.emplace_back(cookie, Model{});
      }
    } else {
      all.emplace_back(request.cookie, modelUnder(request.action, request.cookie));
    }
    return all;
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
  Words observe(bool programmed) {
    p4::v1::ReadRequest request;
    request.set_device_id(1);
    request.add_entities()->mutable_table_entry();
    request.add_entities()->mutable_action_profile_member();
    request.add_entities()->mutable_action_profile_group();
    const auto context = newContext();
    const auto reader = controller_->stub().Read(context.get(), request);
    Words all;
    for (p4::v1::ReadResponse response; reader->Read(&response);) {
      for (const p4::v1::Entity& entity : response.entities()) {
        all.push_back(text(entity));
      }
    }
    EXPECT_EQ(reader->Finish().ok(), programmed);
    std::sort(all.begin(), all.end());
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
  static std::string difference(const Words& from, const Words& without) {
    Words lines;
    std::set_difference(from.begin(), from.end(), without.begin(), without.end(),
                        std::back_inserter(lines));
    return testing::PrintToString(lines);
  }

  // Everything answered is there, and of the rest a first part; of what rolls back all or nothing.
  void compare() {
    const auto possible = outcomes();
    const std::uint64_t cookie = observeCookie().value();
    const Words seen = observe(cookie != 0);
    const auto found = std::find_if(possible.begin(), possible.end(), [&](const auto& one) {
      return one.first == cookie && one.second.everything() == seen;
    });
    ASSERT_NE(found, possible.end())
        << "cookie " << cookie_ << " and now " << cookie
        << "; not answered for: " << difference(seen, model_.everything())
        << "\nanswered for and missing: " << difference(model_.everything(), seen)
        << "\nunanswered: " << (unanswered_ ? unanswered_->write.ShortDebugString() : "nothing");
    if (cookie != cookie_) {
      saved_ = {0};
    }
    std::tie(cookie_, model_) = *found;
    unanswered_.reset();
    EXPECT_EQ(observePicture(), model_.picture());
    EXPECT_THAT(program_->type("audit"), testing::HasSubstr("\"faults\":0"));
  }

  void round() {
    if (random_.oneIn(5)) {  // dies while it goes on
      const CliTest::Process other{
          OSTRA_P4RT_PROGRAM,
          {"--json", "--listen", "127.0.0.1:0", "--no-console", "--shm", name_, "--resume"}};
      std::this_thread::sleep_for(std::chrono::microseconds{random_.below(60'000)});
      other.kill(SIGKILL);
    }
    ASSERT_NO_FATAL_FAILURE(start("--resume"));
    killing_ = false;
    ASSERT_NO_FATAL_FAILURE(compare());
    std::thread killer{[this, delay = std::chrono::microseconds{random_.below(30'000)}] {
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

  const std::string name_ = uniqueName("p4rt-crash-test");
  RandomUpdates random_{setting("OSTRA_CRASH_SEED", 1)};
  std::optional<Program> program_;
  std::optional<Controller> controller_;
  std::atomic<bool> killing_ = false;
  Model model_;
  std::uint64_t cookie_ = 0;          // of the committed pipeline; 0 for none
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
