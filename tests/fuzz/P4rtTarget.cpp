// Messages of controllers, below gRPC, on a whole switch.
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/text_format.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "p4rt/Engine.h"
#include "platform/Korm/Activity.h"
#include "platform/Korm/Exceptions.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"
#include "tests/fuzz/Targets.h"
#include "tests/p4rt/ManualTimers.h"

namespace Fuzz {
namespace {

using p4::v1::Entity;
using p4::v1::TableEntry;
using p4::v1::Update;
using p4::v1::WriteRequest;
using SetPipeline = p4::v1::SetForwardingPipelineConfigRequest;

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
  unsigned below(unsigned limit) { return byte() % limit; }
  // Mostly a small number.
  std::uint32_t number(unsigned small) {
    const unsigned chosen = byte();
    if (chosen < 250) {
      return chosen % small;
    }
    std::uint32_t word = 0;
    for (int at = 0; at < 4; ++at) {
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

const p4::config::v1::P4Info& shippedP4Info() {
  static const p4::config::v1::P4Info info = [] {
    p4::config::v1::P4Info parsed;
    std::ifstream file{OSTRA_P4INFO};
    google::protobuf::io::IstreamInputStream stream{&file};
    Korm::assertTrue(google::protobuf::TextFormat::Parse(&stream, &parsed), "the P4Info is one");
    return parsed;
  }();
  return info;
}

// Messages that are nearly right.

void matchIs(Source& source, p4::v1::FieldMatch& match) {
  match.set_field_id(source.number(27));
  switch (source.below(6)) {
    case 0:
      match.mutable_exact()->set_value(source.text(17));
      break;
    case 1:
      match.mutable_optional()->set_value(source.text(17));
      break;
    case 2:
      match.mutable_lpm()->set_value(source.text(4));
      break;
    case 3:
      break;
    default:
      match.mutable_ternary()->set_value(source.text(17));
      match.mutable_ternary()->set_mask(source.text(17));
  }
}

// To one of few IPv4 addresses.
void addressIs(Source& source, TableEntry& entry) {
  auto& etherType = *entry.add_match();
  etherType.set_field_id(5);
  etherType.mutable_ternary()->set_value(std::string{"\x08\x00", 2});
  etherType.mutable_ternary()->set_mask("\xff\xff");
  auto& address = *entry.add_match();
  address.set_field_id(8);
  address.mutable_ternary()->set_value(std::string{"\x0a\x00\x00", 3} +
                                       static_cast<char>(source.below(8)));
  address.mutable_ternary()->set_mask("\xff\xff\xff\xff");
}

void actionIs(Source& source, p4::v1::Action& action) {
  action.set_action_id(0x01000000 + source.number(15));
  for (unsigned param = 0, count = source.below(5); param < count; ++param) {
    auto& added = *action.add_params();
    added.set_param_id(source.below(16) == 0 ? source.number(9) : param + 1);
    added.set_value(source.text(9));
  }
}

void nexthopIs(Source& source, p4::v1::Action& action) {
  if (source.below(8) == 0) {
    actionIs(source, action);
    return;
  }
  action.set_action_id(0x0100000e);
  const unsigned char port = static_cast<unsigned char>(source.below(4));
  const std::array<std::string, 4> values{std::string(1, static_cast<char>(port)), "\x09",
                                          source.text(6), std::string(1, '\0')};
  for (std::uint32_t param = 1; param <= values.size(); ++param) {
    auto& added = *action.add_params();
    added.set_param_id(param);
    added.set_value(values[param - 1]);
  }
}

void tableActionIs(Source& source, p4::v1::TableAction& action) {
  switch (source.below(6)) {
    case 0:
      action.set_action_profile_member_id(source.number(5));
      break;
    case 1:
      action.set_action_profile_group_id(source.number(5));
      break;
    case 2:
      for (unsigned count = source.below(4); count > 0; --count) {
        auto& added = *action.mutable_action_profile_action_set()->add_action_profile_actions();
        nexthopIs(source, *added.mutable_action());
        added.set_weight(static_cast<std::int32_t>(source.number(5)));
      }
      break;
    default:
      actionIs(source, *action.mutable_action());
  }
}

// What few entries have.
void raritiesAre(Source& source, TableEntry& entry) {
  const unsigned chosen = source.byte();
  entry.set_is_default_action((chosen & 0x07U) == 1);
  entry.set_is_const((chosen & 0x0fU) == 2);
  entry.set_idle_timeout_ns((chosen & 0x0fU) == 3 ? 1 : 0);
  if ((chosen & 0x0fU) == 4) {
    entry.mutable_meter_config();
  }
  if ((chosen & 0x03U) == 0) {
    entry.set_metadata(source.text(40));
    entry.set_controller_metadata(source.byte());
  }
  if ((chosen & 0x30U) == 0) {
    entry.mutable_counter_data()->set_byte_count(source.below(2));
  }
}

void entryIs(Source& source, TableEntry& entry) {
  entry.set_table_id(0x02000000 + source.number(6));
  entry.set_priority(static_cast<std::int32_t>(source.number(4)));
  if (source.below(4) != 0) {
    addressIs(source, entry);
  }
  for (unsigned count = source.below(16); count > 12; --count) {
    matchIs(source, *entry.add_match());
  }
  if (source.below(8) != 0) {
    tableActionIs(source, *entry.mutable_action());
  }
  if (source.below(4) == 0) {
    raritiesAre(source, entry);
  }
}

void entityIs(Source& source, Entity& entity) {
  const unsigned kind = source.below(16);
  const std::uint32_t profile = kind == 15 ? source.number(3) : 0x11000001;
  if (kind < 3) {
    auto& member = *entity.mutable_action_profile_member();
    member.set_action_profile_id(profile);
    member.set_member_id(source.number(5));
    nexthopIs(source, *member.mutable_action());
  } else if (kind < 6 || kind == 15) {
    auto& group = *entity.mutable_action_profile_group();
    group.set_action_profile_id(profile);
    group.set_group_id(source.number(5));
    group.set_max_size(static_cast<std::int32_t>(8 + source.number(2)));
    for (unsigned count = source.below(5); count > 0; --count) {
      auto& member = *group.add_members();
      member.set_member_id(source.number(5));
      member.set_weight(static_cast<std::int32_t>(source.number(5)));
    }
  } else if (kind == 6) {
    entryIs(source, *entity.mutable_direct_counter_entry()->mutable_table_entry());
  } else if (kind == 7) {
    (void)entity.ParseFromString(source.text(255));
  } else {
    entryIs(source, *entity.mutable_table_entry());
  }
}

p4::config::v1::P4Info p4infoOf(Source& source) {
  p4::config::v1::P4Info info = shippedP4Info();
  for (unsigned count = source.below(4); count > 0; --count) {
    auto& table = *info.mutable_tables(static_cast<int>(source.below(4)));
    switch (source.below(8)) {
      case 0:
        table.mutable_match_fields()->RemoveLast();
        break;
      case 1:
        table.mutable_match_fields(0)->set_id(source.number(30));
        break;
      case 2:
        table.mutable_match_fields(0)->set_match_type(
            static_cast<p4::config::v1::MatchField::MatchType>(source.below(8)));
        break;
      case 3:
        table.set_size(source.below(4));
        break;
      case 4:
        table.mutable_action_refs()->RemoveLast();
        break;
      case 5:
        info.mutable_action_profiles(0)->set_max_group_size(
            static_cast<std::int32_t>(source.below(9)));
        info.mutable_action_profiles(0)->set_size(source.below(9));
        break;
      case 6:
        info.mutable_actions(static_cast<int>(source.below(14)))
            ->mutable_params()
            ->Add()
            ->set_id(source.number(6));
        break;
      default:
        (void)info.MergeFromString(source.text(255));
        return info;
    }
  }
  return info;
}

// The part of an entity that names it.
Entity filterOf(Entity entity) {
  if (entity.has_table_entry()) {
    TableEntry filter;
    filter.set_table_id(entity.table_entry().table_id());
    filter.set_priority(entity.table_entry().priority());
    filter.mutable_match()->Swap(entity.mutable_table_entry()->mutable_match());
    *entity.mutable_table_entry() = std::move(filter);
  } else if (entity.has_action_profile_member()) {
    entity.mutable_action_profile_member()->clear_action();
  } else {
    entity.mutable_action_profile_group()->clear_members();
    entity.mutable_action_profile_group()->clear_max_size();
  }
  return entity;
}

// A controller whose requests are answered one by one.
class Play {
 public:
  Play() {
    service_.portIs(1, Interface::IntfId{"Ethernet1"});
    service_.portIs(2, Interface::IntfId{"Ethernet2"});
    NexthopGroup::EncapEntry encap;
    encap.encapId = 9;
    encap.type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
    service_.encapIs(encap);
    service_.start();
    commit(shippedP4Info());
  }

  void step(Source& source) {
    switch (source.below(12)) {
      case 0:
        setPipeline(source);
        break;
      case 1:
        hardwareIs(source);
        break;
      case 2:
        read(source);
        break;
      default:
        write(source);
    }
    engine_.verify();
  }
  void finish() {
    Korm::activity().run();
    service_.verify();
    agent_.verify();
  }

 private:
  // Lets the hardware answer, or time pass, until the request is answered.
  template <class Ask>
  P4rt::RpcStatus answered(Ask ask) {
    bool done = false;
    P4rt::RpcStatus result;
    ask([&](P4rt::RpcStatus status) {
      Korm::assertTrue(!std::exchange(done, true), "a request is answered once");
      result = std::move(status);
    });
    for (int round = 0; !done && round < 100; ++round) {
      timers_.pass(0);
      if (answers_) {
        agent_.run();
        Sim::Service::settle();
      } else {
        timers_.pass(2000);
      }
    }
    Korm::assertTrue(done, "a request is answered");
    return result;
  }

  P4rt::RpcStatus commit(const p4::config::v1::P4Info& info,
                         SetPipeline::Action action = SetPipeline::VERIFY_AND_COMMIT) {
    SetPipeline request;
    request.set_action(action);
    if (action != SetPipeline::COMMIT) {
      *request.mutable_config()->mutable_p4info() = info;
    }
    return answered([&](auto done) { engine_.setPipeline(request, done); });
  }

  void setPipeline(Source& source) {
    const auto before = everything();
    const auto action = static_cast<SetPipeline::Action>(source.below(7));
    const P4rt::RpcStatus status = commit(p4infoOf(source), action);
    const bool clears = action == SetPipeline::VERIFY_AND_COMMIT || action == SetPipeline::COMMIT;
    if (!status.ok() || action <= SetPipeline::VERIFY_AND_SAVE) {
      // The hardware may have no room any more for what was to go.
      Korm::assertTrue(isCertain() ? everything() == before : hasAll(before, everything()),
                       "a pipeline that is refused changes nothing");
    } else if (clears) {
      Korm::assertTrue(everything().empty(), "a new pipeline begins empty");
    } else {
      Korm::assertTrue(hasAll(before, everything()), "what is reconciled was there");
    }
  }

  [[nodiscard]] bool isCertain() const {
    return agent_.automatic() && !agent_.flowCapacity() && !agent_.groupCapacity();
  }
  static bool hasAll(const std::vector<std::string>& all, const std::vector<std::string>& some) {
    return std::includes(all.begin(), all.end(), some.begin(), some.end());
  }

  void hardwareIs(Source& source) {
    agent_.automaticIs(source.below(2) == 0);
    answers_ = source.below(4) != 0;
    const auto room = [&]() -> std::optional<std::size_t> {
      return source.below(2) == 0 ? std::nullopt : std::optional<std::size_t>{source.below(9)};
    };
    agent_.flowCapacityIs(room());
    agent_.groupCapacityIs(room());
    Sim::Service::settle();
    timers_.pass(0);
  }

  void read(Source& source) {
    p4::v1::ReadRequest request;
    for (unsigned count = 1 + source.below(3); count > 0; --count) {
      entityIs(source, *request.add_entities());
    }
    (void)entities(request);
  }

  std::vector<Entity> entities(const p4::v1::ReadRequest& request) {
    std::vector<Entity> all;
    (void)answered([&](auto done) {
      engine_.read(
          request,
          [&all](p4::v1::ReadResponse&& some) {
            all.insert(all.end(), some.entities().begin(), some.entities().end());
          },
          done);
    });
    return all;
  }
  std::vector<std::string> everything() {
    p4::v1::ReadRequest request;
    request.add_entities()->mutable_table_entry();
    request.add_entities()->mutable_action_profile_member();
    request.add_entities()->mutable_action_profile_group();
    std::vector<std::string> all;
    for (const Entity& entity : entities(request)) {
      all.push_back(entity.SerializeAsString());
    }
    std::sort(all.begin(), all.end());
    return all;
  }

  void write(Source& source) {
    WriteRequest request;
    request.set_atomicity(static_cast<WriteRequest::Atomicity>(source.below(8) / 3));
    for (unsigned count = 1 + source.below(6); count > 0; --count) {
      Update& update = *request.add_updates();
      update.set_type(static_cast<Update::Type>(source.below(13) % 4));
      entityIs(source, *update.mutable_entity());
    }
    const auto before = everything();
    const P4rt::RpcStatus status = answered([&](auto done) { engine_.write(request, done); });
    if (!status.ok() &&
        (status.details.empty() || request.atomicity() == WriteRequest::ROLLBACK_ON_ERROR)) {
      // The hardware may have no room for what was there, and says so.
      const bool lost =
          std::any_of(status.details.begin(), status.details.end(), [](const p4::v1::Error& error) {
            return error.message().find("refused to restore") != std::string::npos;
          });
      Korm::assertTrue(lost || everything() == before, "what is rolled back leaves no trace");
      return;
    }
    checkWritten(request, status);
  }

  // What the last update of all has made shows in what is read.
  void checkWritten(const WriteRequest& request, const P4rt::RpcStatus& status) {
    const Update& last = request.updates(request.updates_size() - 1);
    const bool took = status.ok() || status.details.back().canonical_code() == 0;
    if (!took || (last.entity().has_table_entry() && last.entity().table_entry().match().empty())) {
      return;
    }
    p4::v1::ReadRequest read;
    *read.add_entities() = filterOf(last.entity());
    Korm::assertTrue((entities(read).size() == 1) == (last.type() != Update::DELETE),
                     "what was written is read back");
  }

  P4rtTest::ManualTimers timers_;
  Sim::Service service_;
  Sim::HwAgent agent_{service_.hwConfig(), service_.hwStatusDir(), service_.hwUnitDir()};
  P4rt::Engine engine_{service_, timers_};
  bool answers_ = true;
};

}  // namespace

void p4rt(Bytes bytes) {
  constexpr std::size_t longest = 2048;
  Source source{bytes.first(std::min(bytes.size(), longest))};
  Play play;
  while (!source.empty()) {
    play.step(source);
  }
  play.finish();
}

}  // namespace Fuzz
