// The library: what becomes of the stored rows in Corvex, and of the hardware's words for the
// service.
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

std::string flowName(Handle handle) { return "flow-" + std::to_string(handle); }

void Model::reporting(auto step) {
  try {
    step();
  } catch (const EntryError& refused) {
    result(refused.handle, refused.code, refused.message);
  }
}

void Model::createLibrary() {
  for (std::uint8_t table = 0; table < flowTables.size(); ++table) {
    removeStaleFlows(table);
    eachRow(flowTables[table], AtDamage::goOn_,
            [this](const FlowKey& key, const FlowRow&) { handleFlow(key); });
  }
  startedAt_ = now_;
  running = true;  // from here on the hardware's word is heard
  if (published) {
    flowStatus.each([this](const std::string& name, std::uint32_t) { flowReported(name); });
    groupStatus.each([this](std::uint64_t id, std::uint32_t) { groupReported(id); });
  }
  encaps_.each([this](std::uint16_t id, const Encap&) { handleEncap(id); });
  eachRow(members, AtDamage::stop_,
          [this](std::uint32_t id, const MemberRow&) { handleMember(id); });
  eachRow(groups, AtDamage::stop_, [this](std::uint32_t id, const GroupRow&) { handleGroup(id); });
}

// Each of the fifteen removes what its own table does not hold.
void Model::removeStaleFlows(std::uint8_t table) {
  std::set<Handle> handles;
  eachRow(flowTables[table], AtDamage::goOn_,
          [&](const FlowKey&, const FlowRow& row) { handles.insert(row.handle); });
  corvexFlows.each([&](const std::string& name, const CorvexFlowState&) {
    if (!handles.contains(handleIn(name))) {
      removeFlow(name);
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
  Translation written;
  refusedFlows_.insert(key);
  translate(key, row, written, true);
  refusedFlows_.erase(key);
  const std::string name = flowName(row.handle);
  const bool existed = corvexFlows.find(name) != nullptr;
  configureFlow(name, written.flow);
  corvexFlows.at(name).entryId = written.flow.entryId;
  if (existed) {
    corvexFlows.at(name).changeCount = now_;
  }
}

void Model::translate(const FlowKey& key, const FlowRow& row, Translation& out, bool live) {
  CorvexFlowState& flow = out.flow;
  flow = {{},
          {},
          key.priority,
          key.priorityGroup,
          key.tableType,
          static_cast<std::uint32_t>(row.handle),
          0.0};
  Match& match = flow.match = buildMatch(key, row.handle);
  const MatchField* const type = constrained(key, etherType_);
  if (key.tableType == 1 && type != nullptr &&
      (type->value.low == ip4Type || type->value.low == ip6Type)) {
    match.l3PacketTypeIs(type->value.low == ip4Type ? OpenFlowTable::L3PacketType::ipv4_
                                                    : OpenFlowTable::L3PacketType::ipv6_,
                         true);
    match.etherTypeIs(0, 0xFFFF);
    match.hasIs(Match::Field::etherType_, false);
  }
  buildActions(key, row, out, live);
  out.translated = true;
  if (flow.actions.has(OpenFlowTable::Action::group_) && !groupReady(flow.actions.group())) {
    throw EntryError{row.handle, notFound,
                     (row.actions.member ? "Member id: " + std::to_string(*row.actions.member)
                                         : "Group id: " + std::to_string(*row.actions.group)) +
                         " is not found"};
  }
  if (live) {
    handleOf[key] = row.handle;
  }
  if (key.priority < -1 || key.priority > 65536) {
    throw RangeError{"Priority::value < -1 or > Priority::max not allowed"};
  }
}

Interface::IntfId Model::interfaceOf(std::uint32_t port) const {
  const auto mapped = ports_.find(port);
  return mapped == ports_.end() ? Interface::IntfId{} : Interface::IntfId{mapped->second};
}

void Model::buildActions(const FlowKey& key, const FlowRow& row, Translation& out, bool live) {
  const FlowActions& given = row.actions;
  OpenFlowTable::Actions& built = out.flow.actions;
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
    built.outputIntfIs(interfaceOf(port), true);
  });
  put(given.vrf, [&](auto value) { built.vrfIs(value, true); });
  put(given.vlan, [&](auto value) {
    if (value > 4094) {
      throw RangeError{"VlanIdOrNone::value > 4094 not allowed"};
    }
    built.vlanIdIs(Bridging::VlanIdOrNone{value}, true);
  });
  out.counted = true;
  if (live) {
    changeVrf(key, given.vrf, row.handle);
  }
  put(given.policer, [&](const Policer& policer) {
    OpenFlowTable::PolicerConfig config{.rate = policer.rate, .burst = policer.burst};
    std::copy(policer.drop.begin(), policer.drop.end(), config.dropByColor.begin());
    built.policerIs(config, true);
  });
  put(given.cpuTrafficClass,
      [&](auto value) { built.cpuTrafficClassIs(trafficClass(value), true); });
  put(given.member, [&](auto member) { built.groupIs(memberBase + member, true); });
  put(given.group, [&](auto group) { built.groupIs(group, true); });
}

void Model::deleteFlow(const FlowKey& key) {
  refusedFlows_.erase(key);
  const auto mapped = handleOf.find(key);
  if (mapped == handleOf.end()) {
    return result(0, 0, "");
  }
  const Handle handle = mapped->second;
  if (!removeFlow(flowName(handle))) {
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
    if (left.users == 1 && left.deletor == 0) {
      left.deletor = handle;
      marked = old;
    }
    left.users -= left.users > 0 ? 1 : 0;
    vrfOf.erase(key);
  }
  if (vrf) {
    VrfState& entered = vrfs[*vrf];
    if (entered.users++ == 0 && entered.creator == 0) {
      entered.creator = handle;
      marked = vrf;
    }
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

// What is refused is noted until it is processed again.
void Model::processGroup(std::uint64_t corvexId, auto step) {
  refusedGroups_.erase(corvexId);
  reporting([&] {
    try {
      step();
    } catch (const EntryError&) {
      refusedGroups_.insert(corvexId);
      throw;
    }
  });
}

void Model::handleMember(std::uint32_t id) {
  processGroup(memberBase + id, [&] {
    const MemberRow* const row = members.find(id);
    if (row == nullptr) {
      removeGroup(memberBase + id);
      return result(batch_[*current_].handle, 0, "");  // only a write of the member removes it
    }
    configureGroup(memberBase + id,
                   {.type = 2, .buckets = {bucketOf(id, *row)}, .changeCount = now_});
    eachRow(groups, AtDamage::stop_, [&](std::uint32_t group, const GroupRow& list) {
      if (std::count(list.members.begin(), list.members.end(), id) != 0 &&
          corvexGroups.contains(group)) {
        handleGroup(group);
      }
    });
  });
}

OpenFlowTable::Actions Model::bucketOf(std::uint32_t id, const MemberRow& row) const {
  const std::string name = std::to_string(id);
  checkPort(row.handle, row.port, "Action profile member " + name);
  const Encap* const encap = encaps_.find(row.encap);
  if (encap == nullptr) {
    throw EntryError{
        row.handle, invalidArgument,
        "Action profile member: " + name + " has invalid encapId: " + std::to_string(row.encap)};
  }
  OpenFlowTable::Actions bucket;
  bucket.outputIntfIs(interfaceOf(row.port), true);
  bucket.encapIs({.src = ip4(encap->src),
                  .dst = ip4(encap->dst),
                  .type = 1,
                  .ttl = encap->ttl,
                  .dscp = encap->dscp},
                 true);
  bucket.dstMacIs(mac(row.dstMac), row.dstMac != 0);
  bucket.srcMacIs(mac(row.srcMac), row.srcMac != 0);
  bucket.fixedBlockIs({0x00, 0x05, 0x41, 0x00, 0x40, 0x00, 0x00, 0x00}, true);
  return bucket;
}

void Model::handleGroup(std::uint32_t id) {
  processGroup(id, [&] {
    if (const GroupRow* const row = groups.find(id)) {
      if (auto buckets = bucketsOf(id, *row); !buckets.empty()) {
        configureGroup(id, {.type = 1, .buckets = std::move(buckets), .changeCount = now_});
      }
      return;
    }
    removeGroup(id);
    result(batch_[*current_].handle, 0, "");
  });
}

std::vector<OpenFlowTable::Actions> Model::bucketsOf(std::uint32_t id, const GroupRow& row) const {
  std::vector<OpenFlowTable::Actions> buckets;
  for (const std::uint32_t member : row.members) {
    const auto programmed = corvexGroups.find(memberBase + member);
    if (programmed == corvexGroups.end()) {
      throw EntryError{row.handle, invalidArgument,
                       "Action profile group: " + std::to_string(id) + " member " +
                           std::to_string(member) + " not found"};
    }
    buckets.push_back(programmed->second.buckets.at(0));
  }
  return buckets;
}

void Model::handleEncap(std::uint16_t id) {
  eachRow(members, AtDamage::stop_, [&](std::uint32_t member, const MemberRow& row) {
    if (row.encap == id) {
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
  if ((member == nullptr || member->damaged) && (group == nullptr || group->damaged)) {
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
