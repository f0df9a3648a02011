// Requests of controllers, below gRPC, on a whole switch: valid ones, and such with changed fields.
#include "platform/Korm/Exceptions.h"
#include "tests/fuzz/Targets.h"
#include "tests/p4rt/core/EngineFixture.h"

namespace Fuzz {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::TextFormat;
using p4::v1::Entity;
using P4rtTest::Texts;
using P4rtTest::Update;

int below(Source& source, int limit) { return source.next() % limit; }

// Mostly a small number.
std::uint32_t number(Source& source) {
  std::uint32_t word = source.next();
  for (int at = 0; word >= 250 && at < 3; ++at) {
    word = word << 8U | source.next();
  }
  return word;
}

// Changes a field, mostly one that is set, of the message or of one within it.
void damage(Source& source, Message& message) {
  const Reflection& has = *message.GetReflection();
  const auto& type = *message.GetDescriptor();
  std::vector<const FieldDescriptor*> fields;
  has.ListFields(message, &fields);
  if (fields.empty() || below(source, 4) == 0) {
    for (int at = 0; at < type.field_count(); ++at) {
      fields.push_back(type.field(at));
    }
  }
  if (fields.empty()) {
    return;
  }
  const FieldDescriptor* const field = fields[source.next() % fields.size()];
  const auto kind = field->cpp_type();
  const bool isList = field->is_repeated();
  const int size = isList ? has.FieldSize(message, field) : 0;
  if (size > 0 && below(source, 3) == 0) {
    has.RemoveLast(&message, field);
  } else if (kind == FieldDescriptor::CPPTYPE_MESSAGE) {
    const int at = isList ? below(source, size + 1) : 0;
    damage(source, !isList      ? *has.MutableMessage(&message, field)
                   : at == size ? *has.AddMessage(&message, field)
                                : *has.MutableRepeatedMessage(&message, field, at));
  } else if (kind == FieldDescriptor::CPPTYPE_STRING && !isList) {
    const std::size_t longest = source.next() % 18;
    has.SetString(&message, field, textOf(source.take(longest)));
  } else if (kind == FieldDescriptor::CPPTYPE_UINT32 && !isList) {
    has.SetUInt32(&message, field, has.GetUInt32(message, field) ^ number(source));
  } else if (kind != FieldDescriptor::CPPTYPE_STRING) {
    const bool isFlag = kind == FieldDescriptor::CPPTYPE_BOOL;
    const int value = isFlag ? below(source, 2) : static_cast<int>(number(source));
    // A number outside the range of the field changes nothing.
    TextFormat::ParseFieldValueFromString(std::to_string(value), field, &message);
  }
}

// A filter that reads this entity alone.
Entity filterOf(Entity entity) {
  if (entity.has_table_entry()) {
    auto& entry = *entity.mutable_table_entry();
    entry.clear_action();
    entry.clear_metadata();
    entry.clear_controller_metadata();
    entry.clear_counter_data();
  }
  return entity;
}

bool hasAll(const Texts& all, const Texts& some) {
  return std::includes(all.begin(), all.end(), some.begin(), some.end());
}

// A controller whose requests are answered one by one.
class Play : public P4rtTest::EngineTest {
 public:
  explicit Play(Source& source) : source_{source} { commitShipped(); }

  void step() {
    switch (below(source_, 12)) {
      case 0:
        pipeline();
        break;
      case 1:
        hardware();
        break;
      case 2:
        readDamaged();
        break;
      default:
        write();
    }
    engine->verify();
    Korm::assertTrue(!HasFailure(), "what the engine's tests expect holds");
  }

 private:
  void TestBody() override {}

  P4rtTest::WriteRequest updates() { return random_.write(hint_, below(source_, 2) == 0); }
  void readDamaged() {
    const auto made = updates();
    Entity entity = made.updates().empty() ? Entity{} : made.updates(0).entity();
    damage(source_, entity);
    (void)read(entity);
  }
  Texts read(const Entity& filter) {
    p4::v1::ReadRequest request;
    *request.add_entities() = filter;
    return EngineTest::read(request).entities;
  }

  void pipeline() {
    const Texts before = everything();
    SetPipeline request;
    request.set_action(static_cast<SetPipeline::Action>(below(source_, 7)));
    if (request.action() != SetPipeline::COMMIT) {
      *request.mutable_config()->mutable_p4info() = P4rtTest::shippedP4Info();
      for (int count = below(source_, 4); count > 0; --count) {
        damage(source_, *request.mutable_config()->mutable_p4info());
      }
    }
    const auto call = begin(request);
    await(call, [this] { return answers_; });
    const Texts after = everything();
    if (!call->status.ok() || request.action() <= SetPipeline::VERIFY_AND_SAVE) {
      // The hardware may have no room to restore the entries.
      Korm::assertTrue(hardwareTakesAll() ? after == before : hasAll(before, after),
                       "a pipeline that is refused changes nothing");
      return;
    }
    const bool reconciles = request.action() == SetPipeline::RECONCILE_AND_COMMIT;
    Korm::assertTrue(reconciles ? hasAll(before, after) : after.empty(),
                     "a new pipeline begins empty, or with what was there");
    hint_ = reconciles ? hint_ : P4rtTest::Model{};
  }

  void hardware() {
    answers_ = below(source_, 4) != 0;
    changeHardware(random_);
    runHardware();
  }

  void write() {
    const auto made = updates();
    std::vector<Update> updates{made.updates().begin(), made.updates().end()};
    for (int count = below(source_, 4); count > 1 && !updates.empty(); --count) {
      damage(source_, updates[source_.next() % updates.size()]);
    }
    const Texts before = everything();
    const WriteCall call = begin(updates, made.atomicity());
    await(call, [this] { return answers_; });
    const auto& details = call->status.details;
    if (!call->status.ok() && (details.empty() || made.atomicity() != 0)) {
      // The hardware may have no room to restore entities; the message then says so.
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
      // The effect of the last update can be read.
      Korm::assertTrue((read(filterOf(updates.back().entity())).size() == 1) ==
                           (updates.back().type() != Update::DELETE),
                       "what was written is read back");
    }
  }

  Source& source_;
  P4rtTest::RandomUpdates random_{[this] { return source_.next(); }};
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
