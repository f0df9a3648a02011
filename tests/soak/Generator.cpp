#include "tests/soak/Generator.h"

#include <algorithm>

namespace Soak {

Generator::Generator(std::uint64_t seed) : random_{seed * 0x9E3779B97F4A7C15ULL + 1} {
  faults_ = anyOf<std::uint64_t>({0, 2, 15});
  hardware_ = anyOf<std::uint64_t>({0, 5, 25, 50});
  configuration_ = anyOf<std::uint64_t>({1, 5, 20});
  life_ = anyOf<std::uint64_t>({0, 1, 1, 6});
  members_ = anyOf<std::uint64_t>({0, 20, 60});
  damage_ = anyOf<std::uint64_t>({0, 0, 0, 2});
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
  if (faults_ != 0 && oneIn(4)) {  // the two that say of what kind packets are, and who needs one
    addField(key, etherType_);
    addField(key, isIpPacket_);
    addField(key, anyOf<Field>({ip4Src_, ip4Dst_, ip6Src_, ip6Dst_, arpTarget_, icmpType_, dscp_,
                                nextHeader_, hopLimit_}));
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

Step Generator::flow(const Model& model) {
  const FlowKey& key = anyOf(keys_);
  const Op op = this->op(model.flowTables.at(key.table).find(key) != nullptr);
  const FlowActions given = actions();
  return {text(op) + " flow" + keyText(key) + (op == Op::delete_ ? "" : actionsText(given)),
          [=](Model& m) { m.writeFlow(op, key, given); }};
}

Step Generator::member(const Model& model) {
  const std::uint32_t id = anyOf(memberIds_);
  const Op op = this->op(model.members.find(id) != nullptr);
  MemberRow row{.port = below(100) < faults_ ? 0 : anyOf(ports_)};
  row.encap = static_cast<std::uint16_t>(below(100) < 2 * faults_ ? 65535 : below(3));
  row.dstMac = oneIn(3) ? 0 : random_() >> 16U;
  row.srcMac = oneIn(3) ? 0 : random_() >> 16U;
  std::string line = text(op) + " member " + std::to_string(id);
  if (op != Op::delete_) {
    line += " port=" + std::to_string(row.port) + " encap=" + std::to_string(row.encap);
    line += row.dstMac != 0 ? " dst-mac=" + macText(row.dstMac) : "";
    line += row.srcMac != 0 ? " src-mac=" + macText(row.srcMac) : "";
  }
  return {line, [=](Model& m) { m.writeMember(op, id, row); }};
}

Step Generator::group(const Model& model) {
  const std::uint32_t id = anyOf(groupIds_);
  const Op op = this->op(model.groups.find(id) != nullptr);
  std::vector<std::uint32_t> list;
  for (auto count = below(5); count > 0; --count) {
    list.push_back(anyOf(memberIds_));
  }
  if (model.members.size() != 0 && !oneIn(4)) {  // only members that are stored
    std::erase_if(list,
                  [&](std::uint32_t member) { return model.members.find(member) == nullptr; });
  }
  std::string line = text(op) + " group " + std::to_string(id);
  if (op != Op::delete_) {
    line += " members=";
    for (const std::uint32_t member : list) {
      line += (line.back() == '=' ? "" : ",") + std::to_string(member);
    }
  }
  return {line, [=](Model& m) { m.writeGroup(op, id, list); }};
}

Step Generator::write(const Model& model) {
  return below(100) >= members_ ? flow(model) : oneIn(2) ? member(model) : group(model);
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

Step Generator::hardware(const Model& model) {
  const std::string name = flowName(model);
  const std::uint64_t id = corvexGroup();
  const auto number = static_cast<std::uint32_t>(random_());
  switch (below(16)) {
    case 0:
      return {"hw auto", [](Model& m) { m.automaticIs(true); }};
    case 1:
      return {"hw manual", [](Model& m) { m.automaticIs(false); }};
    case 2:
    case 3:
      return {"hw run", [](Model& m) { m.runHardware(); }};
    case 4:
    case 5:
    case 6: {
      const std::uint32_t status = oneIn(9) ? number : number % 15;
      return {"hw flow " + name + " " + std::to_string(status),
              [=](Model& m) { m.flowStatusIs(name, status); }};
    }
    case 7:
      return {"hw remove flow " + name, [=](Model& m) { m.flowStatusIs(name, std::nullopt); }};
    case 8:
    case 9: {
      const std::uint32_t status = oneIn(9) ? number : number % 5;
      return {"hw group " + std::to_string(id) + " " + std::to_string(status),
              [=](Model& m) { m.groupStatusIs(id, status); }};
    }
    case 10:
      return {"hw remove group " + std::to_string(id),
              [=](Model& m) { m.groupStatusIs(id, std::nullopt); }};
    case 11: {
      const bool ofGroups = oneIn(3);
      const auto room = oneIn(2) ? std::nullopt : std::optional{number % 8};
      return {std::string{"hw capacity "} + (ofGroups ? "groups " : "flows ") +
                  (room ? std::to_string(*room) : "none"),
              [=](Model& m) { m.roomIs(ofGroups, room); }};
    }
    case 12:
      return {"hw count " + name + " " + std::to_string(number % 1000) + " " +
                  std::to_string(number) + " unit" + std::to_string(below(3)),
              [=](Model& m) { m.count(name, number % 1000, number); }};
    case 13:
      return {"hw unpublish", [](Model& m) { m.publishedIs(false); }};
    default:
      return {"hw publish", [](Model& m) { m.publishedIs(true); }};
  }
}

Step Generator::life(const Model& model) {
  if (!model.running) {
    const bool bare = oneIn(4);
    return {bare ? "start bare" : "start", [=](Model& m) { m.start(bare); }};
  }
  return oneIn(3) ? Step{"resync", [](Model& m) { m.resync(); }}
                  : Step{"stop", [](Model& m) { m.stop(); }};
}

Step Generator::configuration() {
  if (oneIn(3)) {
    const std::uint32_t port = anyOf(ports_);
    const std::string name =
        oneIn(3) ? "" : "Ethernet" + std::to_string(below(3)) + "/" + std::to_string(below(1000));
    return {(name.empty() ? "no port " : "port ") + std::to_string(port) + " " + name,
            [=](Model& m) { m.portIs(port, name); }};
  }
  const auto id = static_cast<std::uint16_t>(below(3));
  if (oneIn(5)) {
    return {"no encap " + std::to_string(id), [=](Model& m) { m.encapIs(id, std::nullopt); }};
  }
  const Encap encap{.src = static_cast<std::uint32_t>(random_()),
                    .dst = static_cast<std::uint32_t>(random_()),
                    .ttl = static_cast<std::uint8_t>(random_()),
                    .dscp = static_cast<std::uint8_t>(random_())};
  return {"encap " + std::to_string(id) + " src=" + ip4Text(encap.src) +
              " dst=" + ip4Text(encap.dst) + " ttl=" + std::to_string(encap.ttl) +
              " dscp=" + std::to_string(encap.dscp),
          [=](Model& m) { m.encapIs(id, encap); }};
}

Step Generator::other(const Model& model) {
  const Handle handle = 1 + below(model.lastHandle + 1);
  if (below(100) < 10 * damage_) {
    return {"damage " + std::to_string(handle), [=](Model& m) { m.damage(handle); }};
  }
  if (hardware_ == 0 || oneIn(3)) {
    return {"counter " + std::to_string(handle), [=](Model& m) { m.counter(handle); }};
  }
  std::string name = flowName(model);
  for (const auto& [key, mapped] : model.handleOf) {  // one that the library still knows, perhaps
    const FlowRow* const row = model.flowTables.at(key.table).find(key);
    name = (row == nullptr || row->handle != mapped) && oneIn(2) ? Soak::flowName(mapped) : name;
  }
  return oneIn(2) ? Step{"corvex flow " + name, [=](Model& m) { m.corvexFlowIs(name); }}
                  : Step{"corvex no flow " + name, [=](Model& m) { m.corvexFlowGone(name); }};
}

Command Generator::next(const Model& model) {
  std::uint64_t dice = below(100);
  const auto falls = [&dice](std::uint64_t share) {
    const bool hit = dice < share;
    dice -= hit ? 0 : share;
    return hit;
  };
  if (falls(model.running ? life_ : 20)) {
    return {{life(model)}};
  }
  if (falls(hardware_)) {
    return {{hardware(model)}};
  }
  if (falls(configuration_)) {
    return {{configuration()}};
  }
  if (falls(3 + 2 * damage_)) {
    return {{other(model)}};
  }
  Command batch{.steps = {}, .isBatch = true, .bracketed = oneIn(2)};
  for (auto count = 1 + below(longestBatch_); count > 0; --count) {
    batch.steps.push_back(write(model));
  }
  return batch;
}

}  // namespace Soak
