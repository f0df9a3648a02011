// An engine on a real switch, with time that the test moves.
//
// Entities are written as protobuf text; what comes of updates is kept as words: "OK", "NOT_FOUND",
// "INVALID_ARGUMENT/15" with the library's number where there is one.
#pragma once

#include <google/protobuf/text_format.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
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

namespace P4rtTest {

using testing::ElementsAre;
using testing::IsEmpty;
using Words = std::vector<std::string>;

// Ids of the shipped P4Info.
inline constexpr std::uint32_t aclId = 0x02000001;
inline constexpr std::uint32_t l3AclId = 0x02000002;
inline constexpr std::uint32_t ecmpId = 0x02000003;
inline constexpr std::uint32_t profileId = 0x11000001;

class ManualTimers final : public P4rt::Timers {
 public:
  Id after(std::chrono::milliseconds delay, std::function<void()> work) override {
    waiting_.emplace(std::pair{now_ + delay.count(), ++last_}, std::move(work));
    return last_;
  }
  void cancel(Id timer) override {
    std::erase_if(waiting_, [timer](const auto& one) { return one.first.second == timer; });
  }
  // Lets time pass, and runs what is due on the way.
  void pass(std::int64_t milliseconds) {
    const std::int64_t until = now_ + milliseconds;
    while (!waiting_.empty() && waiting_.begin()->first.first <= until) {
      now_ = std::max(now_, waiting_.begin()->first.first);
      const auto work = std::move(waiting_.begin()->second);
      waiting_.erase(waiting_.begin());
      work();
    }
    now_ = until;
  }
  [[nodiscard]] bool idle() const { return waiting_.empty(); }
  void forget() { waiting_.clear(); }

 private:
  std::int64_t now_ = 0;
  Id last_ = 0;
  std::map<std::pair<std::int64_t, Id>, std::function<void()>> waiting_;
};

inline std::string codeName(std::int32_t code) {
  static const std::array<std::string, 15> names{"OK",
                                                 "CANCELLED",
                                                 "UNKNOWN",
                                                 "INVALID_ARGUMENT",
                                                 "DEADLINE_EXCEEDED",
                                                 "NOT_FOUND",
                                                 "ALREADY_EXISTS",
                                                 "PERMISSION_DENIED",
                                                 "RESOURCE_EXHAUSTED",
                                                 "FAILED_PRECONDITION",
                                                 "ABORTED",
                                                 "OUT_OF_RANGE",
                                                 "UNIMPLEMENTED",
                                                 "INTERNAL",
                                                 "UNAVAILABLE"};
  return names.at(static_cast<std::size_t>(code));
}

// Of the whole request, or of each of its parts.
inline Words wordsOf(const P4rt::RpcStatus& status) {
  if (status.details.empty()) {
    return {codeName(static_cast<std::int32_t>(status.code))};
  }
  EXPECT_EQ(status.code, P4rt::Code::unknown_);
  Words words;
  for (const p4::v1::Error& error : status.details) {
    EXPECT_EQ(error.canonical_code() == 0, error.message().empty());
    words.push_back(codeName(error.canonical_code()) +
                    (error.code() == 0 ? "" : "/" + std::to_string(error.code())));
  }
  return words;
}

template <class Message>
Message parse(std::string_view text) {
  Message message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(std::string{text}, &message)) << text;
  return message;
}

inline p4::config::v1::P4Info shippedP4Info() {
  std::ifstream file{OSTRA_P4INFO};
  std::stringstream text;
  text << file.rdbuf();
  return parse<p4::config::v1::P4Info>(text.str());
}

using p4::v1::Update;

inline Update update(Update::Type type, std::string_view entity) {
  Update made;
  made.set_type(type);
  *made.mutable_entity() = parse<p4::v1::Entity>(entity);
  return made;
}
inline Update insert(std::string_view entity) { return update(Update::INSERT, entity); }
inline Update modify(std::string_view entity) { return update(Update::MODIFY, entity); }
inline Update remove(std::string_view entity) { return update(Update::DELETE, entity); }

// A byte in protobuf text.
inline std::string octal(int value) {
  return std::string{'\\'} + static_cast<char>('0' + value / 64) +
         static_cast<char>('0' + value / 8 % 8) + static_cast<char>('0' + value % 8);
}
// An entry of the ACL that matches IPv4 packets to 10.0.0.N; `rest` is its action and what else it has.
inline std::string acl(int number, std::string_view rest = "", int priority = 10) {
  return "table_entry { table_id: 0x02000001 priority: " + std::to_string(priority) +
         " match { field_id: 5 ternary { value: '\\x08\\x00' mask: '\\xff\\xff' } }"
         " match { field_id: 8 ternary { value: '\\x0a\\x00" +
         octal(number / 256) + octal(number % 256) + "' mask: '\\xff\\xff\\xff\\xff' } } " +
         std::string{rest} + " }";
}
inline std::string drop() { return "action { action { action_id: 0x01000002 } }"; }
inline std::string action(int id, std::initializer_list<std::string> values) {
  std::string text = "action_id: " + std::to_string(0x01000000 + id);
  int param = 0;
  for (const std::string& value : values) {
    text += " params { param_id: " + std::to_string(++param) + " value: '" + value + "' }";
  }
  return text;
}
inline std::string does(int id, std::initializer_list<std::string> values) {
  return "action { action { " + action(id, values) + " } }";
}
inline std::string forward(int port) { return does(3, {octal(port)}); }
// A next hop through port 1 and the given encapsulation.
inline std::string nexthop(int encap = 9, int port = 1) {
  return action(0x0e, {octal(port), octal(encap), "\\000", "\\000"});
}
inline std::string member(int id, const std::string& action = nexthop()) {
  return "action_profile_member { action_profile_id: 0x11000001 member_id: " + std::to_string(id) +
         " action { " + action + " } }";
}
inline std::string group(int id, const std::vector<std::pair<int, int>>& members, int size = 8) {
  std::string text =
      "action_profile_group { action_profile_id: 0x11000001 group_id: " + std::to_string(id) +
      " max_size: " + std::to_string(size);
  for (const auto& [memberId, weight] : members) {
    text += " members { member_id: " + std::to_string(memberId) +
            " weight: " + std::to_string(weight) + " }";
  }
  return text + " }";
}
// An entry of the ECMP table.
inline std::string route(int number, std::string_view action, int priority = 7) {
  return "table_entry { table_id: 0x02000003 priority: " + std::to_string(priority) +
         " match { field_id: 5 ternary { value: '\\x08\\x00' mask: '\\xff\\xff' } }"
         " match { field_id: 8 ternary { value: '\\x0b\\x00\\x00" +
         octal(number) + "' mask: '\\xff\\xff\\xff\\xff' } } action { " + std::string{action} +
         " } }";
}
inline std::string oneShot(const std::vector<std::pair<std::string, int>>& actions) {
  std::string text = "action_profile_action_set {";
  for (const auto& [does, weight] : actions) {
    text += " action_profile_actions { action { " + does + " } weight: " + std::to_string(weight) +
            " }";
  }
  return text + " }";
}

// Repeated fields in order of their text.
inline std::string text(p4::v1::Entity entity) {
  const auto sortBy = [](auto* repeated) {
    std::sort(repeated->begin(), repeated->end(), [](const auto& a, const auto& b) {
      return a.SerializeAsString() < b.SerializeAsString();
    });
  };
  if (entity.has_table_entry()) {
    p4::v1::TableEntry& entry = *entity.mutable_table_entry();
    sortBy(entry.mutable_match());
    if (entry.action().has_action_profile_action_set()) {
      sortBy(entry.mutable_action()
                 ->mutable_action_profile_action_set()
                 ->mutable_action_profile_actions());
    }
  }
  if (entity.has_action_profile_group()) {
    sortBy(entity.mutable_action_profile_group()->mutable_members());
  }
  return entity.ShortDebugString();
}
inline std::string shown(std::string_view entity) { return text(parse<p4::v1::Entity>(entity)); }

// A request under way, with what has come of it.
template <class Request>
struct Call {
  Request request;
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
    encap(9);
  }
  ~EngineTest() override {
    Korm::activity().run();
    service->verify();
    agent->verify();
  }

  // As if the process were killed and another one went on.
  void restart() {
    engine.reset();
    timers.forget();
    agent.reset();
    service.reset();
    shared_->keep();
    boot(Sim::Leftover::resume_);
  }

  void encap(NexthopGroup::EncapId id) {
    NexthopGroup::EncapEntry entry;
    entry.encapId = id;
    entry.type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
    EXPECT_EQ(service->encapIs(entry), std::nullopt);
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
  void commitShipped() {
    const auto info = shippedP4Info();
    ASSERT_TRUE(setPipeline(SetPipeline::VERIFY_AND_COMMIT, &info).ok());
  }

  // Writes.
  using WriteCall = std::shared_ptr<Call<p4::v1::WriteRequest>>;
  WriteCall begin(const std::vector<Update>& updates, p4::v1::WriteRequest::Atomicity atomicity =
                                                          p4::v1::WriteRequest::CONTINUE_ON_ERROR) {
    auto call = std::make_shared<Call<p4::v1::WriteRequest>>();
    for (const Update& one : updates) {
      *call->request.add_updates() = one;
    }
    call->request.set_atomicity(atomicity);
    engine->write(call->request, [call](P4rt::RpcStatus status) {
      EXPECT_FALSE(call->done) << "answered twice";
      call->done = true;
      call->status = std::move(status);
    });
    timers.pass(0);
    return call;
  }
  // What came of each update; one "OK" when all went well.
  Words write(const std::vector<Update>& updates,
              p4::v1::WriteRequest::Atomicity atomicity = p4::v1::WriteRequest::CONTINUE_ON_ERROR) {
    const WriteCall call = begin(updates, atomicity);
    EXPECT_TRUE(call->done);
    return wordsOf(call->status);
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

 private:
  void boot(Sim::Leftover leftover) {
    const bool keeps = !sharedName_.empty();
    if (keeps) {
      shared_.reset();
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
