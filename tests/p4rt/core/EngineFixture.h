// An engine on a real switch, with time that the test moves.
//
// What comes of updates is kept as words: "OK", "NOT_FOUND", "INVALID_ARGUMENT/15" with the
// library's number where there is one.
#pragma once

#include "p4rt/Engine.h"
#include "platform/Korm/Activity.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"
#include "sim/SharedMemory.h"
#include "tests/p4rt/ManualTimers.h"
#include "tests/p4rt/Model.h"

namespace P4rtTest {

using p4::config::v1::P4Info;
using Atomicity = WriteRequest::Atomicity;

// Of the whole request, or of each of its parts.
inline Texts wordsOf(const P4rt::RpcStatus& status) {
  if (status.details.empty()) {
    return {codeName(static_cast<std::int32_t>(status.code))};
  }
  EXPECT_EQ(status.code, P4rt::Code::unknown_);
  Texts words;
  for (const p4::v1::Error& error : status.details) {
    words.push_back(wordOf(error));
  }
  return words;
}

// The shipped P4Info with the first of each of these texts replaced.
inline P4Info shippedP4Info(const std::vector<std::pair<std::string, std::string>>& edits = {}) {
  std::ifstream file{OSTRA_P4INFO};
  std::string text{std::istreambuf_iterator<char>{file}, {}};
  std::replace(text.begin(), text.end(), '"', '\'');
  for (const auto& [from, to] : edits) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    text.replace(at, from.size(), to);
  }
  return parse<P4Info>(text);
}

// A request that waits for its answer, or has had it.
template <class Request>
struct Call {
  Request request;
  bool done = false;
  P4rt::RpcStatus status{.code = P4rt::Code::cancelled_};
};

class EngineTest : public testing::Test {
 protected:
  using SetPipeline = p4::v1::SetForwardingPipelineConfigRequest;
  using WriteCall = std::shared_ptr<Call<WriteRequest>>;

  // With a name, the switch and the engine's state are in shared memory of that name.
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
    agent->automaticIs(true);
    runHardware();
    service->verify();
    agent->verify();
    if (engine->hasPipeline()) {
      engine->verify();
    }
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

  // Lets the hardware do all that waits, and the engine handle the answers.
  void runHardware() {
    agent->run();
    service->settle();
    timers.pass(0);
  }
  // Makes the hardware automatic or manual, and full or not.
  void changeHardware(RandomUpdates& random) {
    const auto room = [&random] {
      return random.oneIn(2) ? std::nullopt : std::optional<std::size_t>(random.below(13));
    };
    agent->automaticIs(!random.oneIn(4));
    agent->flowCapacityIs(room());
    agent->groupCapacityIs(room());
  }
  // Until the request is answered, lets the hardware answer or, if it does not, time pass.
  void await(const auto& call, const std::function<bool()>& hardwareAnswers) {
    for (int round = 0; !call->done && round < 1000; ++round) {
      if (hardwareAnswers()) {
        runHardware();
      } else {
        timers.pass(1700);
      }
    }
    EXPECT_TRUE(call->done);
  }
  // Whether the hardware takes everything at once.
  [[nodiscard]] bool hardwareTakesAll() const {
    return agent->automatic() && !agent->flowCapacity() && !agent->groupCapacity();
  }

  // Begins a Write, or a change of the pipeline.
  template <class Request>
  std::shared_ptr<Call<Request>> begin(const Request& request) {
    auto call = std::make_shared<Call<Request>>(Call<Request>{request});
    const auto done = [call](P4rt::RpcStatus status) {
      EXPECT_FALSE(call->done) << "answered twice";
      call->done = true;
      call->status = std::move(status);
    };
    if constexpr (std::is_same_v<Request, WriteRequest>) {
      engine->write(call->request, done);
    } else {
      engine->setPipeline(call->request, done);
    }
    timers.pass(0);
    return call;
  }
  WriteCall begin(const std::vector<Update>& updates,
                  Atomicity atomicity = WriteRequest::CONTINUE_ON_ERROR) {
    WriteRequest request;
    request.mutable_updates()->Assign(updates.begin(), updates.end());
    request.set_atomicity(atomicity);
    return begin(request);
  }
  // What came of each update; one "OK" when all went well.
  Texts write(const std::vector<Update>& updates,
              Atomicity atomicity = WriteRequest::CONTINUE_ON_ERROR) {
    return wordsOf(begin(updates, atomicity)->status);
  }
  void expectTaken(const std::vector<Update>& updates) {
    EXPECT_THAT(write(updates), ElementsAre("OK"));
  }

  P4rt::RpcStatus setPipeline(SetPipeline::Action action, const std::optional<P4Info>& info = {}) {
    SetPipeline request;
    request.set_action(action);
    if (info) {
      *request.mutable_config()->mutable_p4info() = *info;
    }
    return begin(request)->status;
  }
  void commitShipped() {
    ASSERT_TRUE(setPipeline(SetPipeline::VERIFY_AND_COMMIT, shippedP4Info()).ok());
  }
  p4::v1::ForwardingPipelineConfig configured() {
    const p4::v1::GetForwardingPipelineConfigRequest request;
    p4::v1::GetForwardingPipelineConfigResponse response;
    bool done = false;
    engine->getPipeline(request, response,
                        [&](const P4rt::RpcStatus& status) { done = status.ok(); });
    EXPECT_TRUE(done);
    return response.config();
  }

  // The entities that were read, as sorted texts, and the outcomes of the filters.
  struct Answer {
    Texts entities;
    Texts outcome;
  };
  Answer read(const Texts& filters) {
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
        [&answer](const p4::v1::ReadResponse& response) {
          EXPECT_LE(response.entities_size(), P4rt::Engine::readChunk);
          for (const auto& entity : response.entities()) {
            answer.entities.push_back(entity.ShortDebugString());
          }
        },
        [&answer](const P4rt::RpcStatus& status) { answer.outcome = wordsOf(status); });
    timers.pass(0);
    std::sort(answer.entities.begin(), answer.entities.end());
    return answer;
  }
  Texts everything() {
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
};

}  // namespace P4rtTest
