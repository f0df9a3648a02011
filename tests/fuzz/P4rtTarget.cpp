// Messages of controllers, below gRPC, on a whole switch: the model's random ones, as they are and
// with any of their fields changed.
#include <algorithm>
#include <string>
#include <vector>

#include "platform/Korm/Exceptions.h"
#include "tests/fuzz/Targets.h"
#include "tests/p4rt/core/EngineFixture.h"

namespace Fuzz {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using p4::v1::Entity;
using p4::v1::Update;
using p4::v1::WriteRequest;
using P4rtTest::Words;

// Numbers from the front of some bytes, zero behind their end.
class Source {
 public:
  explicit Source(Bytes bytes) : rest_{bytes} {}

  [[nodiscard]] bool empty() const { return rest_.empty(); }
  unsigned byte() {
    if (rest_.empty()) {
      return 0;
    }
    const unsigned first = rest_[0];
    rest_ = rest_.subspan(1);
    return first;
  }
  int below(int limit) { return static_cast<int>(byte()) % limit; }
  // Mostly a small number.
  std::uint32_t number() {
    std::uint32_t word = byte();
    for (int at = 0; word >= 250 && at < 3; ++at) {
      word = word << 8U | byte();
    }
    return word;
  }
  std::string text(std::size_t longest) {
    const std::size_t wanted = byte() % (longest + 1);
    const std::size_t size = std::min(wanted, rest_.size());
    std::string taken{rest_.begin(), rest_.begin() + static_cast<std::ptrdiff_t>(size)};
    rest_ = rest_.subspan(size);
    return taken;
  }

 private:
  Bytes rest_;
};

void damage(Source& source, Message& message);

void damageList(Source& source, Message& message, const FieldDescriptor* field) {
  const Reflection& has = *message.GetReflection();
  const int size = has.FieldSize(message, field);
  if (size > 0 && source.below(3) == 0) {
    has.RemoveLast(&message, field);
  } else if (field->cpp_type() == FieldDescriptor::CPPTYPE_UINT32) {
    has.AddUInt32(&message, field, source.number());
  } else if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
    const int at = source.below(size + 1);
    damage(source, at == size ? *has.AddMessage(&message, field)
                              : *has.MutableRepeatedMessage(&message, field, at));
  }
}

// Changes a field, mostly one that is set, of the message or of one within it.
void damage(Source& source, Message& message) {
  const Reflection& has = *message.GetReflection();
  const auto& type = *message.GetDescriptor();
  std::vector<const FieldDescriptor*> fields;
  has.ListFields(message, &fields);
  if (fields.empty() || source.below(4) == 0) {
    for (int at = 0; at < type.field_count(); ++at) {
      fields.push_back(type.field(at));
    }
  }
  if (fields.empty()) {
    return;
  }
  const FieldDescriptor* const field = fields[source.byte() % fields.size()];
  if (field->is_repeated()) {
    damageList(source, message, field);
    return;
  }
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_MESSAGE:
      damage(source, *has.MutableMessage(&message, field));
      break;
    case FieldDescriptor::CPPTYPE_STRING:
      has.SetString(&message, field, source.text(17));
      break;
    case FieldDescriptor::CPPTYPE_UINT32:
      has.SetUInt32(&message, field, has.GetUInt32(message, field) ^ source.number());
      break;
    case FieldDescriptor::CPPTYPE_INT32:
      has.SetInt32(&message, field, static_cast<std::int32_t>(source.number()));
      break;
    case FieldDescriptor::CPPTYPE_INT64:
      has.SetInt64(&message, field, source.number());
      break;
    case FieldDescriptor::CPPTYPE_UINT64:
      has.SetUInt64(&message, field, source.number());
      break;
    case FieldDescriptor::CPPTYPE_BOOL:
      has.SetBool(&message, field, source.below(2) == 0);
      break;
    case FieldDescriptor::CPPTYPE_ENUM:
      has.SetEnumValue(&message, field, source.below(9));
      break;
    default:
      break;
  }
}

// What reads an entity alone.
Entity filterOf(const Entity& entity) {
  Entity filter;
  if (entity.has_table_entry()) {
    filter = entity;
    auto& entry = *filter.mutable_table_entry();
    entry.clear_action();
    entry.clear_metadata();
    entry.clear_controller_metadata();
    entry.clear_counter_data();
  } else if (entity.has_action_profile_member()) {
    filter.mutable_action_profile_member()->set_member_id(
        entity.action_profile_member().member_id());
  } else {
    filter.mutable_action_profile_group()->set_group_id(entity.action_profile_group().group_id());
  }
  return filter;
}

bool hasAll(const Words& all, const Words& some) {
  return std::includes(all.begin(), all.end(), some.begin(), some.end());
}

// A controller whose requests are answered one by one.
class Play : public P4rtTest::EngineTest {
 public:
  explicit Play(Source& source) : source_{source} { commitShipped(); }

  void step() {
    switch (source_.below(12)) {
      case 0:
        pipeline();
        break;
      case 1:
        hardware();
        break;
      case 2:
        (void)read(entity());
        break;
      default:
        write();
    }
    engine->verify();
    Korm::assertTrue(!HasFailure(), "what the engine's tests expect holds");
  }

 private:
  void TestBody() override {}

  // Lets the hardware answer, or time pass, until the request is answered.
  void await(const bool& done) {
    for (int round = 0; !done && round < 1000; ++round) {
      if (answers_) {
        runHardware();
      } else {
        timers.pass(2000);
      }
    }
    Korm::assertTrue(done, "a request is answered");
  }
  [[nodiscard]] bool isCertain() const {
    return agent->automatic() && !agent->flowCapacity() && !agent->groupCapacity();
  }

  WriteRequest updates() { return random_.write(hint_, source_.below(2) == 0); }
  Entity entity() {
    const WriteRequest made = updates();
    Entity entity = made.updates().empty() ? Entity{} : made.updates(0).entity();
    damage(source_, entity);
    return entity;
  }
  Words read(const Entity& filter) {
    p4::v1::ReadRequest request;
    *request.add_entities() = filter;
    return EngineTest::read(request).entities;
  }

  void pipeline() {
    const Words before = everything();
    SetPipeline request;
    request.set_action(static_cast<SetPipeline::Action>(source_.below(7)));
    if (request.action() != SetPipeline::COMMIT) {
      *request.mutable_config()->mutable_p4info() = P4rtTest::shippedP4Info();
      for (int count = source_.below(4); count > 0; --count) {
        damage(source_, *request.mutable_config()->mutable_p4info());
      }
    }
    bool done = false;
    bool ok = false;
    engine->setPipeline(request, [&](const P4rt::RpcStatus& status) {
      done = true;
      ok = status.ok();
    });
    await(done);
    const Words after = everything();
    if (!ok || request.action() <= SetPipeline::VERIFY_AND_SAVE) {
      // The hardware may have no room any more for what was to go.
      Korm::assertTrue(isCertain() ? after == before : hasAll(before, after),
                       "a pipeline that is refused changes nothing");
      return;
    }
    const bool reconciles = request.action() == SetPipeline::RECONCILE_AND_COMMIT;
    Korm::assertTrue(reconciles ? hasAll(before, after) : after.empty(),
                     "a new pipeline begins empty, or with what was there");
    hint_ = reconciles ? hint_ : P4rtTest::Model{};
  }

  void hardware() {
    agent->automaticIs(source_.below(2) == 0);
    answers_ = source_.below(4) != 0;
    const auto room = [&]() -> std::optional<std::size_t> {
      return source_.below(2) == 0 ? std::nullopt : std::optional<std::size_t>(source_.below(9));
    };
    agent->flowCapacityIs(room());
    agent->groupCapacityIs(room());
    runHardware();
  }

  void write() {
    const WriteRequest made = updates();
    std::vector<Update> updates{made.updates().begin(), made.updates().end()};
    for (int count = source_.below(4); count > 1 && !updates.empty(); --count) {
      damage(source_, updates[source_.byte() % updates.size()]);
    }
    const Words before = everything();
    const WriteCall call = begin(updates, made.atomicity());
    await(call->done);
    const auto& details = call->status.details;
    if (!call->status.ok() && (details.empty() || made.atomicity() != 0)) {
      // The hardware may have no room for what was there, and says so.
      const bool lost = std::any_of(details.begin(), details.end(), [](const p4::v1::Error& error) {
        return error.message().find("refused to restore") != std::string::npos;
      });
      Korm::assertTrue(lost || everything() == before, "what is rolled back leaves no trace");
      return;
    }
    for (std::size_t at = 0; at < updates.size(); ++at) {
      const bool took = details.empty() || details[at].canonical_code() == 0;
      if (took && updates[at].SerializeAsString() ==
                      made.updates(static_cast<int>(at)).SerializeAsString()) {
        hint_.apply(updates[at]);
      }
    }
    if (!updates.empty() && (details.empty() || details.back().canonical_code() == 0)) {
      // What the last update has made shows in what is read.
      Korm::assertTrue((read(filterOf(updates.back().entity())).size() == 1) ==
                           (updates.back().type() != Update::DELETE),
                       "what was written is read back");
    }
  }

  Source& source_;
  P4rtTest::RandomUpdates random_{[this] { return source_.byte(); }};
  P4rtTest::Model hint_;  // roughly what is stored
  bool answers_ = true;
};

}  // namespace

void p4rt(Bytes bytes) {
  constexpr std::size_t longest = 2048;
  Source source{bytes.first(std::min(bytes.size(), longest))};
  Play play{source};
  while (!source.empty()) {
    play.step();
  }
}

}  // namespace Fuzz
