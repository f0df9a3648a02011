// The library: what becomes of the stored rows in Corvex, and of the hardware's words for the service.
#include <algorithm>
#include <cstdio>

#include "tests/soak/Model.h"

namespace Soak {
namespace {

using OpenFlowTable::Match;

constexpr unsigned invalidArgument = 15;
constexpr unsigned notFound = 16;
constexpr std::uint16_t ip4Type = 0x0800;
constexpr std::uint16_t ip6Type = 0x86DD;

Handle handleIn(const std::string& name) {
  unsigned long number = 0;
  return std::sscanf(name.c_str(), "flow-%lu", &number) > 0 ? number : 0;
}

std::string flowName(Handle handle) { return "flow-" + std::to_string(handle); }

Korm::EthAddr mac(std::uint64_t address) {
  Korm::EthAddr to;
  for (std::size_t at = to.octets.size(); at-- > 0; address >>= 8U) {
    to.octets[at] = static_cast<std::uint8_t>(address);
  }
  return to;
}
Korm::Ip4Addr ip4(std::uint32_t address) {
  const auto octet = [address](unsigned shift) {
    return static_cast<std::uint8_t>(address >> shift);
  };
  return {{octet(24), octet(16), octet(8), octet(0)}};
}

}  // namespace

template <class Step>
void Model::reporting(Step step) {
  try {
    step();
  } catch (const EntryError& refused) {
    result(refused.handle, refused.code, refused.message);
  }
}

void Model::createLibrary() {
  for (std::uint8_t table = 0; table < flowTables.size(); ++table) {
    removeStaleFlows(table);
    flowTables[table].each([this](const FlowKey& key, const FlowRow& /*row*/) { handleFlow(key); });
  }
  running = true;  // from here on the hardware's word is heard
  if (published) {
    flowStatus.each([this](const std::string& name, std::uint32_t) { flowReported(name); });
    groupStatus.each([this](std::uint64_t id, std::uint32_t) { groupReported(id); });
  }
  encaps_.each([this](std::uint16_t id, const EncapIs&) { handleEncap(id); });
  members.each([this](std::uint32_t id, const MemberRow&) { handleMember(id); });
  groups.each([this](std::uint32_t id, const GroupRow&) { handleGroup(id); });
}

// Each of the fifteen removes what its own table does not hold.
void Model::removeStaleFlows(std::uint8_t table) {
  std::set<Handle> handles;
  flowTables[table].each([&](const FlowKey&, const FlowRow& row) { handles.insert(row.handle); });
  corvexFlows.each([&](const std::string& name, const CorvexFlowState&) {
    if (!handles.contains(handleIn(name))) {
      corvexFlowDel(name);
    }
  });
}

void Model::handleFlow(const FlowKey& key) {
  reporting([&] {
    if (const FlowRow* const row = flowTables[key.table].find(key)) {
      insertFlow(key, *row);
    } else {
      deleteFlow(key);
    }
  });
}

void Model::insertFlow(const FlowKey& key, const FlowRow& row) {
  Match match = buildMatch(key, row.handle);
  const OpenFlowTable::Actions actions = buildActions(key, row);
  if (actions.has(OpenFlowTable::Action::group_) && !groupReady(actions.group())) {
    throw EntryError{row.handle, notFound,
                     (row.actions.member ? "Member id: " + std::to_string(*row.actions.member)
                                         : "Group id: " + std::to_string(*row.actions.group)) +
                         " is not found"};
  }
  const std::string name = flowName(row.handle);
  const bool existed = corvexFlows.find(name) != nullptr;
  handleOf[key] = row.handle;
  const MatchField* const type = constrained(key, etherType_);
  if (key.tableType == 1 && type != nullptr &&
      (type->value.low == ip4Type || type->value.low == ip6Type)) {
    match.l3PacketType = type->value.low == ip4Type ? OpenFlowTable::L3PacketType::ipv4_
                                                    : OpenFlowTable::L3PacketType::ipv6_;
    match.hasIs(Match::Field::l3PacketType_, true);
    match.etherType = {0, 0xFFFF};
    match.hasIs(Match::Field::etherType_, false);
  }
  if (key.priority < -1 || key.priority > 65536) {
    throw RangeError{"Priority::value < -1 or > Priority::max not allowed"};
  }
  corvexFlowIs(name, {match, actions, key.priority, key.priorityGroup, key.tableType, 0, 0});
  CorvexFlowState& flow = corvexFlows.at(name);
  flow.entryId = static_cast<std::uint32_t>(row.handle);
  if (existed) {
    flow.changeCount = now_;
  }
}

OpenFlowTable::Actions Model::buildActions(const FlowKey& key, const FlowRow& row) {
  const FlowActions& given = row.actions;
  OpenFlowTable::Actions built;
  const auto trafficClass = [](std::uint8_t value) {
    if (value > 16) {
      throw RangeError{
          "TrafficClass::value < TrafficClass::min or > TrafficClass::invalid not allowed"};
    }
    return OpenFlowTable::TrafficClass{value};
  };
  const auto put = [](const auto& value, auto store) {
    if (value) {
      store(*value);
    }
  };
  put(given.trafficClass, [&](auto value) { built.trafficClassIs(trafficClass(value), true); });
  built.dropIs(given.drop);
  built.copyToCpuIs(given.copyToCpu);
  built.decTtlIs(given.decTtl);
  put(given.setDscp, [&](auto value) { built.setDscpIs(value, true); });
  put(given.setEthSrc, [&](auto value) { built.setEthSrcIs(mac(value), true); });
  put(given.setEthDst, [&](auto value) { built.setEthDstIs(mac(value), true); });
  put(given.mirrorIngress,
      [&](const auto& name) { built.ingrMirrorIntfIs(Interface::IntfId{name}, true); });
  put(given.mirrorEgress,
      [&](const auto& name) { built.egrMirrorIntfIs(Interface::IntfId{name}, true); });
  put(given.output, [&](std::uint32_t port) {
    checkPort(row.handle, port, "egress port-id");
    const auto mapped = ports_.find(port);
    built.outputIntfIs(
        mapped == ports_.end() ? Interface::IntfId{} : Interface::IntfId{mapped->second}, true);
  });
  put(given.vrf, [&](auto value) { built.vrfIs(value, true); });
  put(given.vlan, [&](auto value) {
    if (value > 4094) {
      throw RangeError{"VlanIdOrNone::value > 4094 not allowed"};
    }
    built.vlanIdIs(Bridging::VlanIdOrNone{value}, true);
  });
  changeVrf(key, given.vrf, row.handle);
  put(given.policer, [&](const Policer& policer) {
    OpenFlowTable::PolicerConfig config{.rate = policer.rate, .burst = policer.burst};
    std::copy(policer.drop.begin(), policer.drop.end(), config.dropByColor.begin());
    built.policerIs(config, true);
  });
  put(given.cpuTrafficClass,
      [&](auto value) { built.cpuTrafficClassIs(trafficClass(value), true); });
  put(given.member, [&](auto member) { built.groupIs(memberBase + member, true); });
  put(given.group, [&](auto group) { built.groupIs(group, true); });
  return built;
}

void Model::deleteFlow(const FlowKey& key) {
  const auto mapped = handleOf.find(key);
  if (mapped == handleOf.end()) {
    return result(0, 0, "");
  }
  const Handle handle = mapped->second;
  if (!corvexFlowDel(flowName(handle))) {
    return result(handle, 0, "");  // and the key stays mapped
  }
  changeVrf(key, std::nullopt, handle);
  handleOf.erase(key);
}

// The first user of a VRF is its creator and the last one its deletor, unless there is one already.
void Model::changeVrf(const FlowKey& key, std::optional<std::uint32_t> vrf, Handle handle) {
  const auto held = vrfOf.find(key);
  const std::optional<std::uint32_t> old =
      held == vrfOf.end() ? std::nullopt : std::optional{held->second};
  if (old == vrf) {
    return;
  }
  std::optional<std::uint32_t> marked;
  if (old) {
    VrfState& left = vrfs[*old];
    if (left.users == 1U && !left.deletor) {
      left.deletor = handle;
      marked = old;
    }
    left.users = left.users.value_or(0) > 0 ? *left.users - 1 : 0;
    vrfOf.erase(key);
  }
  if (vrf) {
    VrfState& entered = vrfs[*vrf];
    if (entered.users.value_or(0) == 0 && !entered.creator) {
      entered.creator = handle;
      marked = vrf;
    }
    entered.users = entered.users.value_or(0) + 1;
    vrfOf[key] = *vrf;
  }
  if (marked && *marked != noVrf) {
    dependents[handle] = *marked;
  }
}

bool Model::groupReady(std::uint64_t id) const {
  const std::uint32_t* const status = groupStatus.find(id);
  return corvexGroups.contains(id) && published && status != nullptr && *status == 0;
}

void Model::handleMember(std::uint32_t id) {
  reporting([&] {
    if (const MemberRow* const row = members.find(id)) {
      updateMember(*row);
      return;
    }
    corvexGroupDel(memberBase + id);
    result(batch_[*current_].handle, 0, "");  // only a write of the member removes it
  });
}

void Model::updateMember(const MemberRow& row) {
  const MemberWrite& member = row.write;
  const std::string id = std::to_string(member.id);
  checkPort(row.handle, member.port, "Action profile member " + id);
  const EncapIs* const encap = encaps_.find(member.encap);
  if (encap == nullptr) {
    throw EntryError{
        row.handle, invalidArgument,
        "Action profile member: " + id + " has invalid encapId: " + std::to_string(member.encap)};
  }
  OpenFlowTable::Actions bucket;
  const auto port = ports_.find(member.port);
  bucket.outputIntfIs(port == ports_.end() ? Interface::IntfId{} : Interface::IntfId{port->second},
                      true);
  bucket.encapIs({.src = ip4(encap->src),
                  .dst = ip4(encap->dst),
                  .type = 1,
                  .ttl = encap->ttl,
                  .dscp = encap->dscp},
                 true);
  bucket.dstMacIs(mac(member.dstMac), member.dstMac != 0);
  bucket.srcMacIs(mac(member.srcMac), member.srcMac != 0);
  bucket.fixedBlockIs({0x00, 0x05, 0x41, 0x00, 0x40, 0x00, 0x00, 0x00}, true);
  corvexGroupIs(memberBase + member.id, {.type = 2, .buckets = {bucket}, .changeCount = now_});
  groups.each([&](std::uint32_t group, const GroupRow& list) {
    if (std::count(list.members.begin(), list.members.end(), member.id) != 0 &&
        corvexGroups.contains(group)) {
      handleGroup(group);
    }
  });
}

void Model::handleGroup(std::uint32_t id) {
  reporting([&] {
    if (const GroupRow* const row = groups.find(id)) {
      updateGroup(id, *row);
      return;
    }
    corvexGroupDel(id);
    result(batch_[*current_].handle, 0, "");
  });
}

void Model::updateGroup(std::uint32_t id, const GroupRow& row) {
  CorvexGroupState group{.type = 1, .buckets = {}, .changeCount = now_};
  for (const std::uint32_t member : row.members) {
    const auto programmed = corvexGroups.find(memberBase + member);
    if (programmed == corvexGroups.end()) {
      throw EntryError{row.handle, invalidArgument,
                       "Action profile group: " + std::to_string(id) + " member " +
                           std::to_string(member) + " not found"};
    }
    group.buckets.push_back(programmed->second.buckets.at(0));
  }
  if (!group.buckets.empty()) {
    corvexGroupIs(id, std::move(group));
  }
}

void Model::handleEncap(std::uint16_t id) {
  members.each([&](std::uint32_t member, const MemberRow& row) {
    if (row.write.encap == id) {
      handleMember(member);
    }
  });
}

void Model::flowReported(const std::string& name) {
  if (!watching()) {
    return;
  }
  unsigned code = 0;
  if (const std::uint32_t* const status = flowStatus.find(name)) {
    constexpr int notFinal = -1;
    constexpr int codes[] = {notFinal, 0,        0,  notFinal, notFinal, 7, 6,
                             1,        notFinal, 19, 19,       19,       6, notFinal};
    const int known = *status < std::size(codes) ? codes[*status] : 19;
    if (known == notFinal) {
      return;
    }
    code = static_cast<unsigned>(known);
  }
  const Handle handle = handleIn(name);
  if (dependents.erase(handle) != 0) {
    const auto book = books_.find(handle);
    if (book == books_.end() || !book->second.statusOpen) {
      return;  // the entry under which it would be told has gone
    }
  }
  result(handle, code, "");
}

void Model::groupReported(std::uint64_t id) {
  const std::uint32_t* const status = groupStatus.find(id);
  if (!watching() || status == nullptr) {
    return;
  }
  const auto profile = static_cast<std::uint32_t>(id);
  const MemberRow* const member = id >= memberBase ? members.find(profile) : nullptr;
  const GroupRow* const group = id < memberBase ? groups.find(profile) : nullptr;
  if (member == nullptr && group == nullptr) {
    return;
  }
  const auto book = books_.find(member != nullptr ? member->handle : group->handle);
  if (book == books_.end() || !book->second.statusOpen) {
    return;
  }
  const auto fail = [&](unsigned code, const std::string& words) {
    book->second.statusCode = code;
    book->second.statusMessage = words +
                                 (member != nullptr ? " profile member " : " profile group ") +
                                 std::to_string(profile);
  };
  if (*status == 2) {
    fail(6, "Action not supported for");
  } else if (*status == 3) {
    fail(1, "Hardware resource exhausted for");
  } else if (*status == 4) {
    fail(19, "Unknown error to program");
  }
}

}  // namespace Soak
