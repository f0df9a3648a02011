// Random commands: a seed makes a small world of keys, members, groups and VRFs, and a mix of
// commands.
//
// Thread and process rule: a value.
#pragma once

#include "tests/soak/Model.h"

namespace Soak {

class Generator {
 public:
  explicit Generator(std::uint64_t seed) : random_{seed * 0x9E3779B97F4A7C15ULL + 1} {
    vrfs_.resize(1 + below(vrfs_.size()));
    for (auto count = 2 + below(24); count > 0; --count) {
      keys_.push_back(newKey());
    }
  }

  // The next command for a switch in that state.
  Command next(Model& model) {
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
      Step step = hardware();
      step.about = recent(model);
      return {{step}};
    }
    if (falls(configuration_)) {
      return {{configuration()}};
    }
    if (falls(3 + 2 * damage_)) {
      return {{other(model)}};
    }
    Command batch{.isBatch = true, .isBracketed = oneIn(2)};
    for (auto count = 1 + below(longestBatch_); count > 0; --count) {
      batch.steps.push_back(below(100) >= members_ ? flow(model)
                            : oneIn(2)             ? member(model)
                                                   : group(model));
    }
    batch.isBracketed = batch.isBracketed || batch.steps.size() != 1;
    return batch;
  }

 private:
  std::uint64_t below(std::uint64_t limit) { return random_() % limit; }
  bool oneIn(std::uint64_t count) { return below(count) == 0; }
  bool isFaulty() { return below(100) < faults_; }
  template <class T>
  const T& anyOf(const std::vector<T>& values) {
    return values[below(values.size())];
  }

  void addField(FlowKey& key, unsigned number) {
    const auto field = static_cast<Field>(number);
    if (std::any_of(key.fields.begin(), key.fields.end(),
                    [field](const MatchField& match) { return match.field == field; })) {
      return;
    }
    const unsigned bits = info(field).bits;
    const std::uint64_t ones = bits >= 64 ? ~0ULL : (1ULL << bits) - 1;
    MatchField match{
        .field = field, .value = {oneIn(4) ? below(4) : random_() & ones}, .mask = {ones}};
    if (bits == 128) {
      match.value.high = random_();
      match.mask = {oneIn(2) ? ~0ULL : 0, oneIn(2) ? ~0ULL : random_()};
    }
    if (oneIn(5)) {
      match.mask = oneIn(2) ? Bits{} : Bits{random_() & ones, match.mask.high};
    }
    if (field == ingressPort_ || field == egressPort_) {
      match.value.low =
          isFaulty() ? anyOf<std::uint64_t>({0, 4294967040, 4294967295}) : anyOf(ports_);
      match.mask.low = isFaulty() ? random_() & ones : ones;
    } else if (field == etherType_) {
      match.value.low = anyOf<std::uint64_t>({0x0800, 0x0800, 0x86DD, 0x0806, 0x88CC});
      match.mask.low = isFaulty() ? anyOf<std::uint64_t>({0xFF00, 1}) : oneIn(8) ? 0 : ones;
    } else if (field == vlanId_) {
      match.value.low = isFaulty() ? 4094 + below(3) : below(4095);
      match.mask.low = isFaulty() ? 4095 + below(2) : oneIn(6) ? 0 : 4095;
    }
    key.fields.push_back(match);
  }

  FlowKey newKey() {
    FlowKey key;
    key.table = static_cast<std::uint8_t>(anyOf<unsigned>({0, 0, 1, 7, 14}));
    key.tableType = static_cast<std::int32_t>(anyOf<int>({0, 1, 1, 2}));
    key.priorityGroup = static_cast<std::uint32_t>(below(3));
    key.priority =
        static_cast<std::int32_t>(isFaulty() ? anyOf<int>({-2, 65537, -2147483647 - 1, 2147483647})
                                             : anyOf<int>({-1, 0, 10, 65536}));
    // Fields that go together, so that most keys are valid.
    if (oneIn(2)) {
      addField(key, etherType_);
      const unsigned types = typesOf(key.fields.back().value.low);
      for (unsigned field = firstNeedy; field < fieldCount; ++field) {
        if ((info(static_cast<Field>(field)).needs & types) != 0 && oneIn(2)) {
          addField(key, field);
        }
      }
    }
    if (faults_ != 0 && oneIn(4)) {  // both fields that give a type, and one that requires a type
      addField(key, etherType_);
      addField(key, isIpPacket_);
      addField(key, static_cast<unsigned>(firstNeedy + below(fieldCount - firstNeedy)));
    }
    for (auto extra = below(4); extra > 0; --extra) {
      addField(key,
               static_cast<unsigned>(faults_ == 0 ? ingressPort_ + below(firstNeedy - ingressPort_)
                                                  : below(fieldCount)));
    }
    std::sort(key.fields.begin(), key.fields.end());
    return key;
  }

  FlowActions actions() {
    FlowActions actions;
    // One in `count` has the action.
    const auto give = [&](std::uint64_t count, const std::string& name, auto& place, auto value) {
      if (!oneIn(count)) {
        return;
      }
      place = static_cast<typename std::remove_cvref_t<decltype(place)>::value_type>(value);
      actions.text += " " + name + "=";
      if constexpr (std::is_same_v<decltype(value), std::string>) {
        actions.text += value;
      } else {
        actions.text += name.starts_with("set-eth") ? macText({value}) : std::to_string(value);
      }
    };
    const auto flag = [&](const char* name) {
      const bool given = oneIn(6);
      actions.text += given ? name : "";
      return given;
    };
    const std::uint64_t fault = isFaulty() ? 1 + below(4) : 0;
    give(fault == 1 ? 1 : 3, "output", actions.output,
         fault == 1 ? anyOf<std::uint32_t>({0, 4294967040}) : anyOf(ports_));
    give(2, "vrf", actions.vrf, anyOf(vrfs_));
    give(fault == 2 ? 1 : 5, "vlan", actions.vlan,
         fault == 2 ? anyOf<std::uint64_t>({4095, 65535}) : below(4095));
    give(4, "group", actions.group, anyOf(groupIds_));
    give(5, "member", actions.member, anyOf(memberIds_));
    give(fault == 3 ? 1 : 5, "traffic-class", actions.trafficClass,
         fault == 3 ? anyOf<std::uint64_t>({17, 255}) : below(17));
    give(fault == 4 ? 1 : 5, "cpu-traffic-class", actions.cpuTrafficClass,
         fault == 4 ? anyOf<std::uint64_t>({17, 255}) : below(17));
    give(8, "set-dscp", actions.setDscp, below(256));
    give(8, "set-eth-src", actions.setEthSrc, random_() >> 16U);
    give(8, "set-eth-dst", actions.setEthDst, random_() >> 16U);
    give(8, "mirror-ingress", actions.mirrorIngress, "Mirror" + std::to_string(below(3)));
    give(8, "mirror-egress", actions.mirrorEgress, std::string{"M"});
    if (oneIn(8)) {
      const OpenFlowTable::PolicerConfig policer{.rate = random_() >> below(64),
                                                 .burst = random_() >> below(64),
                                                 .dropByColor = {oneIn(2), oneIn(2), oneIn(2)}};
      actions.policer = policer;
      actions.text += " policer=" + std::to_string(policer.rate) + "," +
                      std::to_string(policer.burst) +
                      (policer.dropByColor[0] ? ",drop-green" : "") +
                      (policer.dropByColor[1] ? ",drop-yellow" : "") +
                      (policer.dropByColor[2] ? ",drop-red" : "");
    }
    actions.drop = flag(" drop");
    actions.copyToCpu = flag(" copy-to-cpu");
    actions.decTtl = flag(" dec-ttl");
    return actions;
  }

  Op op(bool stored) {
    return oneIn(20)  ? anyOf<Op>({insert_, modify_, delete_})
           : !stored  ? insert_
           : oneIn(2) ? modify_
                      : delete_;
  }

  Step flow(Model& model) {
    const FlowKey& key = anyOf(keys_);
    const Op op = this->op(model.flowTables.at(key.table).find(key) != nullptr);
    const FlowActions given = actions();
    return {words(op, "flow") + keyText(key) + (op == delete_ ? "" : " ->" + given.text),
            [=](Model& m) { m.write(op, key, FlowRow{.actions = given}); }};
  }

  Step member(Model& model) {
    const std::uint32_t id = anyOf(memberIds_);
    const Op op = this->op(model.members.find(id) != nullptr);
    const MemberRow row{
        .port = isFaulty() ? 0 : anyOf(ports_),
        .encap = static_cast<std::uint16_t>(below(100) < 2 * faults_ ? 65535 : below(3)),
        .dstMac = oneIn(3) ? 0 : random_() >> 16U,
        .srcMac = oneIn(3) ? 0 : random_() >> 16U};
    std::string line = words(op, "member", id);
    if (op != delete_) {
      line += " port=" + std::to_string(row.port) + " encap=" + std::to_string(row.encap);
      line += row.dstMac != 0 ? " dst-mac=" + macText({row.dstMac}) : "";
      line += row.srcMac != 0 ? " src-mac=" + macText({row.srcMac}) : "";
    }
    return {line, [=](Model& m) { m.write(op, id, row); }};
  }

  Step group(Model& model) {
    const std::uint32_t id = anyOf(groupIds_);
    const Op op = this->op(model.groups.find(id) != nullptr);
    const bool onlyStored = model.members.size() != 0 && !oneIn(4);
    std::vector<std::uint32_t> list;
    std::string text;
    for (auto count = below(5); count > 0; --count) {
      const std::uint32_t member = anyOf(memberIds_);
      if (!onlyStored || model.members.find(member) != nullptr) {
        list.push_back(member);
        text += (text.empty() ? "" : ",") + std::to_string(member);
      }
    }
    return {words(op, "group", id) + (op == delete_ ? "" : " members=" + text),
            [=](Model& m) { m.write(op, id, GroupRow{.members = list}); }};
  }

  // The name of the step's flow, or an unusual name.
  std::string flowName() {
    return !oneIn(6)
               ? "flow-#"
               : anyOf<std::string>({"flow-+#", "flow-00#", "flow-#x", "odd", "flow-", "flow-0",
                                     "flow--1", "flow-18446744073709551616", "Flow-#"});
  }

  Step hardware() {
    const std::string name = flowName();
    const std::uint64_t id = oneIn(2) ? anyOf(groupIds_) : memberBase + anyOf(memberIds_);
    const auto number = static_cast<std::uint32_t>(random_());
    const bool isOdd = oneIn(9);
    const std::uint32_t flowStatus = isOdd ? number : number % 15;
    const std::uint32_t groupStatus = isOdd ? number : number % 5;
    const auto room = oneIn(2) ? std::nullopt : std::optional{number % 8};
    const std::string places = room ? std::to_string(*room) : "none";
    const Step run{"hw run", [](Model& m) { m.program(); }};
    const Step publish{"hw publish", [](Model& m) { m.publishedIs(true); }};
    const Step flow{words("hw flow", name, flowStatus),
                    [=](Model& m) { m.publishFlow(m.named(name), flowStatus); }};
    const Step group{words("hw group", id, groupStatus),
                     [=](Model& m) { m.publishGroup(id, groupStatus); }};
    const Step rare = anyOf<Step>(
        {{"hw unpublish", [](Model& m) { m.publishedIs(false); }},
         {"hw auto", [](Model& m) { m.automatic = true; }},
         {"hw manual", [](Model& m) { m.automatic = false; }},
         {"hw remove flow " + name, [=](Model& m) { m.withdrawFlow(m.named(name)); }},
         {words("hw remove group", id), [=](Model& m) { m.groupStatus.erase(id); }},
         oneIn(3) ? Step{"hw capacity groups " + places, [=](Model& m) { m.groupRoom = room; }}
                  : Step{"hw capacity flows " + places, [=](Model& m) { m.flowRoom = room; }},
         {words("hw count", name, number % 1000, number, "unit" + std::to_string(below(3))),
          [=](Model& m) { m.count(m.named(name), number % 1000, number); }}});
    return anyOf<Step>({rare, rare, rare, rare, run, flow, flow, group, publish});
  }

  // One of the last handles, or the next one.
  Handle recent(const Model& model) {
    return model.lastHandle + 1 - below(std::min<std::uint64_t>(model.lastHandle, 40) + 1);
  }

  Step life(const Model& model) {
    const std::string command =
        model.running ? (oneIn(3) ? "resync" : "stop") : (oneIn(4) ? "start bare" : "start");
    return {command, [=](Model& m) { m.lifeIs(command); }};
  }

  Step configuration() {
    if (oneIn(3)) {
      const std::uint32_t port = anyOf(ports_);
      if (oneIn(3)) {
        return {words("no port", port), [=](Model& m) { m.ports.erase(port); }};
      }
      const std::string name =
          "Ethernet" + std::to_string(below(3)) + "/" + std::to_string(below(1000));
      return {words("port", port, name), [=](Model& m) { m.ports[port] = name; }};
    }
    const auto id = static_cast<std::uint16_t>(below(3));
    if (oneIn(5)) {
      return {words("no encap", id), [=](Model& m) { m.encapIs(id, std::nullopt); }};
    }
    const std::uint64_t src = random_() >> 32U;
    const std::uint64_t dst = random_() >> 32U;
    const OpenFlowTable::EncapInfo encap{.src = valueOf<Korm::Ip4Addr>({src}),
                                         .dst = valueOf<Korm::Ip4Addr>({dst}),
                                         .type = 1,
                                         .ttl = static_cast<std::uint8_t>(random_()),
                                         .dscp = static_cast<std::uint8_t>(random_())};
    return {"encap " + std::to_string(id) + " src=" + ip4Text({src}) + " dst=" + ip4Text({dst}) +
                " ttl=" + std::to_string(encap.ttl) + " dscp=" + std::to_string(encap.dscp),
            [=](Model& m) { m.encapIs(id, encap); }};
  }

  Step other(Model& model) {
    Handle handle = 1 + below(model.lastHandle + 1);
    if (below(100) < 10 * damage_) {
      const auto choose = [&](std::uint32_t /*id*/, const auto& row) {
        handle = oneIn(6) ? row.handle : handle;
      };
      model.members.each(choose);
      model.groups.each(choose);
      return {"damage #", [](Model& m) { m.damage(); }, handle};
    }
    if (hardware_ == 0 || oneIn(3)) {
      return {"counter #", [](Model& m) { m.counter(); }, handle};
    }
    std::string name = flowName();
    Handle about = recent(model);
    for (const auto& [key, mapped] :
         model.handleOf) {  // sometimes one that only the library still knows
      const FlowRow* const row = model.flowTables.at(key.table).find(key);
      if ((row == nullptr || row->handle != mapped) && oneIn(2)) {
        name = "flow-#";
        about = mapped;
      }
    }
    return oneIn(2) ? Step{"corvex flow " + name, [=](Model& m) { m.corvexFlowIs(m.named(name)); },
                           about}
                    : Step{"corvex no flow " + name, [=](Model& m) { m.removeFlow(m.named(name)); },
                           about};
  }

  std::mt19937_64 random_;
  // Percentages.
  const std::uint64_t faults_ = anyOf<std::uint64_t>({0, 2, 15});
  const std::uint64_t hardware_ = anyOf<std::uint64_t>({0, 5, 25, 50});
  const std::uint64_t configuration_ = anyOf<std::uint64_t>({1, 5, 20});
  const std::uint64_t life_ = anyOf<std::uint64_t>({0, 1, 1, 6});
  const std::uint64_t members_ = anyOf<std::uint64_t>({0, 20, 60});
  const std::uint64_t damage_ = anyOf<std::uint64_t>({0, 0, 2});
  const std::uint64_t longestBatch_ = 1 + below(12);
  const std::vector<std::uint32_t> memberIds_{0, 1, 2, 5, 8, 4294967295};
  const std::vector<std::uint32_t> groupIds_{0, 1, 5, 7, 4294967295};
  const std::vector<std::uint32_t> ports_{1, 2, 3, 9, 4294967039};
  std::vector<std::uint32_t> vrfs_{0, 1, 2, 3, 7, noVrf};
  std::vector<FlowKey> keys_;
};

}  // namespace Soak
