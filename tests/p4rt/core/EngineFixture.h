// An engine on a real switch, with time that the test moves.
//
// What comes of updates is kept as words: "OK", "NOT_FOUND", "INVALID_ARGUMENT/15" with the
// library's number where there is one.
#pragma once

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "p4rt/Engine.h"
#include "platform/Korm/Activity.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"
#include "sim/SharedMemory.h"
#include "tests/p4rt/ManualTimers.h"
#include "tests/p4rt/Model.h"

namespace P4rtTest {

using testing::ElementsAre;
using testing::IsEmpty;

// Of the whole request, or of each of its parts.
inline Words wordsOf(const P4rt::RpcStatus& status) {
  if (status.details.empty()) {
    return {codeName(static_cast<std::int32_t>(status.code))};
  }
  EXPECT_EQ(status.code, P4rt::Code::unknown_);
  Words words;
  for (const p4::v1::Error& error : status.details) {
    words.push_back(wordOf(error));
  }
  return words;
}

inline const p4::config::v1::P4Info& shippedP4Info() {
  static const auto info = [] {
    std::ifstream file{OSTRA_P4INFO};
    return parse<p4::config::v1::P4Info>(std::string{std::istreambuf_iterator<char>{file}, {}});
  }();
  return info;
}

// A Write under way, with what has come of it.
struct Call {
  WriteRequest request;
  bool done = false;
  P4rt::RpcStatus status{};
};

class EngineTest : public testing::Test {
 protected:
  // With a name, the switch and what the engine holds are in that shared memory.
  explicit EngineTest(std::string sharedName = {}) : sharedName_{std::move(sharedName)} {
    boot(Sim::Leftover::discard_);
    service->portIs(1, Interface::IntfId{"Ethernet1"});
    service->portIs(2, Interface::IntfId{"Ethernet2"});
    for (const int id : {1, 2, 9}) {
      NexthopGroup::EncapEntry entry;
      entry.encapId = static_cast<NexthopGroup::EncapId>(id);
      entry.type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
      EXPECT_EQ(service->encapIs(entry), std::nullopt);
    }
  }
  ~EngineTest() override {
    Korm::activity().run();
    service->verify();
    agent->verify();
  }

  // As if the process were killed.
  void die() {
    engine.reset();
    timers.forget();
    agent.reset();
    service.reset();
    shared_->keep();
    shared_.reset();
  }
  void boot(Sim::Leftover leftover) {
    const bool keeps = !sharedName_.empty();
    if (keeps) {
      shared_.emplace(sharedName_, leftover);
    }
    service.emplace(keeps ? &*shared_ : nullptr);
    agent.emplace(service->hwConfig(), service->hwStatusDir(), service->hwUnitDir());
    engine.emplace(*service, timers, P4rt::EngineOptions{.keeps = keeps});
    if (keeps) {
      EXPECT_THAT(engine->resume(), IsEmpty());
    }
    service->start();
  }
  // Another one goes on.
  void restart() {
    die();
    boot(Sim::Leftover::resume_);
  }

  // Lets the hardware do all that waits, and the engine what follows from it.
  void runHardware() {
    agent->run();
    service->settle();
    timers.pass(0);
  }

  // Pipelines.
  using SetPipeline = p4::v1::SetForwardingPipelineConfigRequest;
  P4rt::RpcStatus setPipeline(SetPipeline::Action action,
                              const p4::config::v1::P4Info* info = nullptr) {
    SetPipeline request;
    request.set_action(action);
    if (info != nullptr) {
      *request.mutable_config()->mutable_p4info() = *info;
    }
    return setPipeline(request);
  }
  P4rt::RpcStatus setPipeline(const SetPipeline& request) {
    P4rt::RpcStatus result{.code = P4rt::Code::cancelled_};
    engine->setPipeline(request, [&result](P4rt::RpcStatus status) { result = std::move(status); });
    timers.pass(0);
    return result;
  }
  p4::v1::ForwardingPipelineConfig configured() {
    const p4::v1::GetForwardingPipelineConfigRequest request;
    p4::v1::GetForwardingPipelineConfigResponse response;
    bool done = false;
    engine->getPipeline(request, response,
                        [&done](const P4rt::RpcStatus& status) { done = status.ok(); });
    EXPECT_TRUE(done);
    return response.config();
  }
  void commitShipped() {
    ASSERT_TRUE(setPipeline(SetPipeline::VERIFY_AND_COMMIT, &shippedP4Info()).ok());
  }

  // Writes.
  using WriteCall = std::shared_ptr<Call>;
  WriteCall begin(WriteRequest request) {
    auto call = std::make_shared<Call>();
    call->request = std::move(request);
    engine->write(call->request, [call](P4rt::RpcStatus status) {
      EXPECT_FALSE(call->done) << "answered twice";
      call->done = true;
      call->status = std::move(status);
    });
    timers.pass(0);
    return call;
  }
  // What came of each update; one "OK" when all went well.
  Words write(WriteRequest request) {
    const WriteCall call = begin(std::move(request));
    EXPECT_TRUE(call->done);
    return wordsOf(call->status);
  }
  static WriteRequest requestOf(const std::vector<Update>& updates,
                                WriteRequest::Atomicity atomicity) {
    WriteRequest request;
    request.mutable_updates()->Assign(updates.begin(), updates.end());
    request.set_atomicity(atomicity);
    return request;
  }
  WriteCall begin(const std::vector<Update>& updates,
                  WriteRequest::Atomicity atomicity = WriteRequest::CONTINUE_ON_ERROR) {
    return begin(requestOf(updates, atomicity));
  }
  Words write(const std::vector<Update>& updates,
              WriteRequest::Atomicity atomicity = WriteRequest::CONTINUE_ON_ERROR) {
    return write(requestOf(updates, atomicity));
  }
  void expectTaken(const std::vector<Update>& updates) {
    EXPECT_THAT(write(updates), ElementsAre("OK"));
  }

  // What the filters let through, as text in order of the text, and what came of the filters.
  struct Answer {
    Words entities;
    Words outcome;
  };
  Answer read(const std::vector<std::string>& filters) {
    p4::v1::ReadRequest request;
    for (const std::string& filter : filters) {
      *request.add_entities() = parse<p4::v1::Entity>(filter);
    }
    return read(request);
  }
  Answer read(const p4::v1::ReadRequest& request) {
    Answer answer;
    engine->read(
        request,
        [&answer](p4::v1::ReadResponse&& response) {
          EXPECT_LE(response.entities_size(), P4rt::Engine::readChunk);
          for (const auto& entity : response.entities()) {
            answer.entities.push_back(text(entity));
          }
        },
        [&answer](const P4rt::RpcStatus& status) { answer.outcome = wordsOf(status); });
    timers.pass(0);
    std::sort(answer.entities.begin(), answer.entities.end());
    return answer;
  }
  Words everything() {
    return read({"table_entry {}", "action_profile_member {}", "action_profile_group {}"}).entities;
  }

 private:
  const std::string sharedName_;
  std::optional<Sim::SharedMemory> shared_;

 public:
  ManualTimers timers;
  std::optional<Sim::Service> service;
  std::optional<Sim::HwAgent> agent;
  std::optional<P4rt::Engine> engine;
};

// With the shipped pipeline.
class Programmed : public EngineTest {
 protected:
  explicit Programmed(std::string sharedName = {}) : EngineTest{std::move(sharedName)} {
    commitShipped();
  }
  ~Programmed() override { engine->verify(); }
};

}  // namespace P4rtTest
