#include "tests/soak/Generator.h"

#include <algorithm>

namespace Soak {

Generator::Generator(std::uint64_t seed) : random_{seed * 0x9E3779B97F4A7C15ULL + 1} {
  faults_ = anyOf<std::uint64_t>({0, 2, 15});
  hardware_ = anyOf<std::uint64_t>({0, 5, 25, 50});
  configuration_ = anyOf<std::uint64_t>({1, 5, 20});
  life_ = anyOf<std::uint64_t>({0, 1, 1, 6});
  members_ = anyOf<std::uint64_t>({0, 20, 60});
  longestBatch_ = 1 + below(12);
  memberIds_ = {0, 1, 2, 5, 8, 4294967295};
  groupIds_ = {0, 1, 5, 7, 4294967295};
  ports_ = {1, 2, 3, 9, 4294967039};
  vrfs_ = {0, 1, 2, 3, 7, noVrf};
  vrfs_.resize(1 + below(vrfs_.size()));
  for (auto count = 2 + below(24); count > 0; --count) {
    keys_.push_back(newKey());
  }
}

MatchField Generator::newField(Field field) {
  const FieldInfo& is = info(field);
  MatchField match{.field = field, .value = {}, .mask = {}};
  const std::uint64_t ones = is.bits >= 64 ? ~0ULL : (1ULL << is.bits) - 1;
  match.value.low = oneIn(4) ? below(4) : random_() & ones;
  match.mask.low = ones;
  if (is.form == Form::ip6_) {
    match.value.high = random_();
    match.mask.high = oneIn(2) ? ~0ULL : random_();
    match.mask.low = oneIn(2) ? ~0ULL : 0;
  }
  if (oneIn(5)) {
    match.mask = oneIn(2) ? Bits{} : Bits{match.mask.high, random_() & ones};
  }
  switch (field) {
    case ingressPort_:
    case egressPort_:
      match.value.low =
          below(100) < faults_ ? anyOf<std::uint64_t>({0, 4294967040, 4294967295}) : anyOf(ports_);
      match.mask.low = below(100) < faults_ ? random_() & ones : ones;
      break;
    case etherType_:
      match.value.low = anyOf<std::uint64_t>({0x0800, 0x0800, 0x86DD, 0x0806, 0x88CC});
      match.mask.low = below(100) < faults_ ? anyOf<std::uint64_t>({0xFF00, 1})
                       : oneIn(8)           ? 0
                                            : ones;
      break;
    case vlanId_:
      match.value.low = below(100) < faults_ ? 4094 + below(3) : below(4095);
      match.mask.low = below(100) < faults_ ? 4095 + below(2) : oneIn(6) ? 0 : 4095;
      break;
    default:
      break;
  }
  return match;
}

void Generator::addField(FlowKey& key, Field field) {
  if (std::none_of(key.fields.begin(), key.fields.end(),
                   [field](const MatchField& match) { return match.field == field; })) {
    key.fields.push_back(newField(field));
  }
}

FlowKey Generator::newKey() {
  FlowKey key;
  key.table = static_cast<std::uint8_t>(anyOf<unsigned>({0, 0, 1, 7, 14}));
  key.tableType = static_cast<std::int32_t>(anyOf<int>({0, 1, 1, 2}));
  key.priorityGroup = static_cast<std::uint32_t>(below(3));
  key.priority = static_cast<std::int32_t>(
      below(100) < faults_ ? anyOf<int>({-2, 65537, -2147483647 - 1, 2147483647})
                           : anyOf<int>({-1, 0, 10, 65536}));
  // Fields that go together, so that most keys are right, and some that need not.
  if (oneIn(2)) {
    addField(key, etherType_);
    const std::uint64_t type = key.fields.back().value.low;
    for (const Field field :
         type == 0x86DD   ? std::vector{ip6Src_, ip6Dst_, icmpType_, dscp_}
         : type == 0x0800 ? std::vector{ip4Src_, ip4Dst_, icmpType_, dscp_, nextHeader_, hopLimit_}
         : type == 0x0806 ? std::vector{arpTarget_}
                          : std::vector{ethSrc_}) {
      if (oneIn(2)) {
        addField(key, field);
      }
    }
  }
  for (auto extra = below(4); extra > 0; --extra) {
    addField(key, faults_ == 0
                      ? anyOf<Field>({ingressPort_, egressPort_, ethSrc_, ethDst_, vlanId_,
                                      ip4Dscp_, ip6Dscp_, ip4Protocol_, ip6NextHeader_, ip4Ttl_,
                                      ip6HopLimit_, l4SrcPort_, l4DstPort_, innerL3Data_})
                      : static_cast<Field>(below(fieldCount_)));
  }
  std::sort(key.fields.begin(), key.fields.end());
  return key;
}

FlowActions Generator::actions() {
  FlowActions actions;
  const auto maybe = [this](std::uint64_t count, auto& place, auto value) {
    if (oneIn(count)) {
      place = static_cast<typename std::remove_cvref_t<decltype(place)>::value_type>(value);
    }
  };
  const bool faulty = below(100) < faults_;
  maybe(3, actions.output, anyOf(ports_));
  maybe(2, actions.vrf, anyOf(vrfs_));
  maybe(5, actions.vlan, below(4095));
  maybe(4, actions.group, anyOf(groupIds_));
  maybe(5, actions.member, anyOf(memberIds_));
  maybe(5, actions.trafficClass, below(17));
  maybe(5, actions.cpuTrafficClass, below(17));
  maybe(8, actions.setDscp, below(256));
  maybe(8, actions.setEthSrc, random_() >> 16U);
  maybe(8, actions.setEthDst, random_() >> 16U);
  if (oneIn(8)) {
    actions.mirrorIngress = "Mirror" + std::to_string(below(3));
  }
  if (oneIn(8)) {
    actions.mirrorEgress = "M";
  }
  if (oneIn(8)) {
    actions.policer =
        Policer{random_() >> below(64), random_() >> below(64), {oneIn(2), oneIn(2), oneIn(2)}};
  }
  actions.drop = oneIn(6);
  actions.copyToCpu = oneIn(6);
  actions.decTtl = oneIn(6);
  if (faulty) {
    switch (below(4)) {
      case 0:
        actions.output = anyOf<std::uint32_t>({0, 4294967040});
        break;
      case 1:
        actions.vlan = static_cast<std::uint16_t>(anyOf<unsigned>({4095, 65535}));
        break;
      case 2:
        actions.trafficClass = static_cast<std::uint8_t>(anyOf<unsigned>({17, 255}));
        break;
      default:
        actions.cpuTrafficClass = static_cast<std::uint8_t>(anyOf<unsigned>({17, 255}));
    }
  }
  return actions;
}

Op Generator::op(bool stored) {
  if (oneIn(20)) {
    return static_cast<Op>(below(3));
  }
  return !stored ? Op::insert_ : oneIn(2) ? Op::modify_ : Op::delete_;
}

FlowWrite Generator::flow(const Model& model) {
  const FlowKey& key = anyOf(keys_);
  return {op(model.flowTables.at(key.table).find(key) != nullptr), key, actions()};
}

MemberWrite Generator::member(const Model& model) {
  const std::uint32_t id = anyOf(memberIds_);
  MemberWrite write{.op = op(model.members.find(id) != nullptr), .id = id, .port = anyOf(ports_)};
  write.port = below(100) < faults_ ? 0 : write.port;
  write.encap = static_cast<std::uint16_t>(below(100) < 2 * faults_ ? 65535 : below(3));
  write.dstMac = oneIn(3) ? 0 : random_() >> 16U;
  write.srcMac = oneIn(3) ? 0 : random_() >> 16U;
  return write;
}

GroupWrite Generator::group(const Model& model) {
  const std::uint32_t id = anyOf(groupIds_);
  GroupWrite write{.op = op(model.groups.find(id) != nullptr), .id = id, .members = {}};
  for (auto count = below(5); count > 0; --count) {
    write.members.push_back(anyOf(memberIds_));
  }
  if (model.members.size() != 0 && !oneIn(4)) {  // only members that are stored
    std::erase_if(write.members,
                  [&](std::uint32_t member) { return model.members.find(member) == nullptr; });
  }
  return write;
}

Write Generator::write(const Model& model) {
  if (below(100) >= members_) {
    return flow(model);
  }
  return oneIn(2) ? Write{member(model)} : Write{group(model)};
}

std::string Generator::flowName(const Model& model) {
  const std::uint64_t back = below(std::min<std::uint64_t>(model.lastHandle, 40) + 1);
  const std::string number = std::to_string(model.lastHandle + 1 - back);
  if (!oneIn(6)) {
    return "flow-" + number;
  }
  return anyOf<std::string>({"flow-+" + number, "flow-00" + number, "flow-" + number + "x", "odd",
                             "flow-", "flow-0", "flow--1", "flow-18446744073709551616",
                             "Flow-" + number});
}

std::uint64_t Generator::corvexGroup() {
  return oneIn(2) ? anyOf(groupIds_) : memberBase + anyOf(memberIds_);
}

Command Generator::hardware(const Model& model) {
  switch (below(16)) {
    case 0:
      return HwMode{true};
    case 1:
      return HwMode{oneIn(2)};
    case 2:
    case 3:
      return HwRun{};
    case 4:
    case 5:
    case 6:
      return HwFlow{flowName(model), static_cast<std::uint32_t>(oneIn(9) ? random_() : below(15))};
    case 7:
      return HwFlow{flowName(model), std::nullopt};
    case 8:
    case 9:
      return HwGroup{corvexGroup(), static_cast<std::uint32_t>(oneIn(9) ? random_() : below(5))};
    case 10:
      return HwGroup{corvexGroup(), std::nullopt};
    case 11:
      return HwCapacity{
          oneIn(3), oneIn(2) ? std::nullopt : std::optional{static_cast<std::uint32_t>(below(8))}};
    case 12:
      return HwCount{flowName(model), below(1000), random_() >> 20U,
                     "unit" + std::to_string(below(3))};
    case 13:
      return HwPublish{false};
    default:
      return HwPublish{true};
  }
}

Command Generator::life(const Model& model) {
  if (!model.running) {
    return Start{oneIn(4)};
  }
  return oneIn(3) ? Command{Resync{}} : Command{Stop{}};
}

Command Generator::configuration() {
  switch (below(8)) {
    case 0:
      return PortIs{anyOf(ports_), ""};
    case 1:
    case 2:
      return PortIs{anyOf(ports_),
                    "Ethernet" + std::to_string(below(3)) + "/" + std::to_string(below(1000))};
    case 3:
      return EncapIs{.id = static_cast<std::uint16_t>(below(3)), .removed = true};
    default:
      return EncapIs{.id = static_cast<std::uint16_t>(below(3)),
                     .removed = false,
                     .src = static_cast<std::uint32_t>(random_()),
                     .dst = static_cast<std::uint32_t>(random_()),
                     .ttl = static_cast<std::uint8_t>(random_()),
                     .dscp = static_cast<std::uint8_t>(random_())};
  }
}

Command Generator::next(const Model& model) {
  std::uint64_t dice = below(100);
  const auto falls = [&dice](std::uint64_t share) {
    const bool hit = dice < share;
    dice -= hit ? 0 : share;
    return hit;
  };
  if (falls(model.running ? life_ : 20)) {
    return life(model);
  }
  if (falls(hardware_)) {
    return hardware(model);
  }
  if (falls(configuration_)) {
    return configuration();
  }
  if (falls(1)) {
    return Counter{1 + below(model.lastHandle + 1)};
  }
  if (hardware_ != 0 && falls(2)) {
    return CorvexFlow{flowName(model), oneIn(2)};
  }
  Batch batch;
  for (auto count = 1 + below(longestBatch_); count > 0; --count) {
    batch.writes.push_back(write(model));
  }
  batch.bracketed = oneIn(2);
  return batch;
}

}  // namespace Soak
