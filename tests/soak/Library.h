// What the library must make of stored rows and of the hardware's statuses.
//
// Thread and process rule: a value.
#pragma once

#include "tests/soak/Books.h"
#include "tests/soak/Hardware.h"

namespace Soak {

inline constexpr std::uint32_t noVrf = 0xFFFFFF;
inline constexpr std::uint64_t memberBase = 1ULL << 32U;

// Rows.
struct FlowRow {
  static constexpr std::string_view kind = "flow";
  Handle handle = 0;
  FlowActions actions{};
};
struct MemberRow {
  static constexpr std::string_view kind = "member";
  Handle handle = 0;
  std::uint32_t port = 0;
  std::uint16_t encap = 0;
  std::uint64_t dstMac = 0, srcMac = 0;
};
struct GroupRow {
  static constexpr std::string_view kind = "group";
  Handle handle = 0;
  std::vector<std::uint32_t> members{};
};
// The result of translating a row.
struct Translation {
  CorvexFlowState flow;
  bool counted = false;     // as a user of its VRF
  bool translated = false;  // completely
};

[[nodiscard]] inline std::string flowName(Handle handle) {
  return "flow-" + std::to_string(handle);
}
[[nodiscard]] inline Handle handleIn(const std::string& name) {
  unsigned long number = 0;
  return std::sscanf(name.c_str(), "flow-%lu", &number) > 0 ? number : 0;
}
// The value under the key, if there is one.
template <class Map>
std::optional<typename Map::mapped_type> valueIn(const Map& map, const auto& key) {
  const auto found = map.find(key);
  return found == map.end() ? std::nullopt : std::optional{found->second};
}
inline void inRange(bool isInRange, const char* otherwise) {
  if (!isInRange) {
    throw std::range_error{otherwise};
  }
}
struct Library : Hardware, Books {
  std::array<SlotMap<FlowKey, FlowRow>, 15> flowTables;
  SlotMap<std::uint32_t, MemberRow> members;
  SlotMap<std::uint32_t, GroupRow> groups;
  SlotMap<std::uint16_t, OpenFlowTable::EncapInfo> encaps;
  std::map<std::uint32_t, std::string> ports;
  bool running = true;
  double startedAt = 0;
  std::map<FlowKey, Handle> handleOf;      // the library's index
  std::map<FlowKey, std::uint32_t> vrfOf;  // the same
  std::map<Handle, std::uint32_t> dependents;
  std::set<FlowKey> refusedFlows;  // whose last write was refused
  std::set<std::uint64_t> refusedGroups;
  // Damaged rows. Every walk skips them until they are written again.
  std::set<Handle> damaged;

  // Calls visit(key, row) for the rows that are not damaged, up to the first that is or all.
  enum class AtDamage : bool { stop_, goOn_ };
  void eachRow(auto& rows, AtDamage atDamage, auto visit) {
    bool ended = false;
    rows.each([&](const auto& key, auto& row) {
      const bool isDamaged = damaged.contains(row.handle);
      ended = ended || (isDamaged && atDamage == AtDamage::stop_);
      if (!ended && !isDamaged) {
        visit(key, row);
      }
    });
  }

  void create() {
    const auto heard = [this](const auto& key, const auto& row) { hear(key, row); };
    for (auto& table : flowTables) {
      removeStaleFlows(table);
      eachRow(table, AtDamage::goOn_, heard);
    }
    startedAt = now;
    running = true;  // from here on statuses are handled
    if (published) {
      reportAll();
    }
    encaps.each([this](std::uint16_t id, const auto&) { handleEncap(id); });
    eachRow(members, AtDamage::stop_, heard);
    eachRow(groups, AtDamage::stop_, heard);
  }
  // Each table removes all flows that are not its own, also those of the other tables.
  void removeStaleFlows(SlotMap<FlowKey, FlowRow>& table) {
    std::set<Handle> handles;
    eachRow(table, AtDamage::goOn_,
            [&](const FlowKey&, const FlowRow& row) { handles.insert(row.handle); });
    corvexFlows.each([&](const std::string& name, const CorvexFlowState&) {
      if (!handles.contains(handleIn(name))) {
        removeFlow(name);
      }
    });
  }
  void forget() {
    forgetWaiting();
    running = false;
    handleOf.clear();
    vrfOf.clear();
    dependents.clear();
    refusedFlows.clear();
    refusedGroups.clear();
  }

  // The library hears that the row has changed.
  void hear(const FlowKey& key, const FlowRow& /*row*/) { handleFlow(key); }
  void hear(std::uint32_t id, const MemberRow& /*row*/) { handleMember(id); }
  void hear(std::uint32_t id, const GroupRow& /*row*/) { handleGroup(id); }

  // Flows.

  void handleFlow(const FlowKey& key) {
    const FlowRow* const row = flowTables.at(key.table).find(key);
    if (row == nullptr) {
      return deleteFlow(key);
    }
    refusedFlows.insert(key);
    try {
      Translation written;
      translate(key, *row, written, true);
      refusedFlows.erase(key);
      const std::string name = flowName(row->handle);
      written.flow.changeCount = corvexFlows.find(name) != nullptr ? now : 0;
      configureFlow(name, written.flow);
    } catch (const Report& refusal) {
      result(refusal);
    }
  }
  void deleteFlow(const FlowKey& key) {
    refusedFlows.erase(key);
    const auto handle = valueIn(handleOf, key);
    if (!handle || !removeFlow(flowName(*handle))) {
      return result({handle.value_or(0)});  // and the key stays mapped
    }
    changeVrf(key, std::nullopt, *handle);
    handleOf.erase(key);
  }
  // `isLive`: the row is counted in its VRF, and its key mapped to its handle.
  void translate(const FlowKey& key, const FlowRow& row, Translation& out, bool isLive) {
    out.flow = {.match = buildMatch(key, row.handle),
                .priority = key.priority,
                .priorityGroup = key.priorityGroup,
                .tableType = key.tableType,
                .entryId = static_cast<std::uint32_t>(row.handle)};
    buildActions(key, row, out, isLive);
    out.translated = true;
    const OpenFlowTable::Actions& built = out.flow.actions;
    if (built.has(OpenFlowTable::Action::group_) && !groupReady(built.group())) {
      throw Report{row.handle, 16,
                   (row.actions.member ? "Member id: " + std::to_string(*row.actions.member)
                                       : "Group id: " + std::to_string(*row.actions.group)) +
                       " is not found"};
    }
    if (isLive) {
      handleOf[key] = row.handle;
    }
    inRange(key.priority >= -1 && key.priority <= 65536,
            "Priority::value < -1 or > Priority::max not allowed");
  }
  [[nodiscard]] bool groupReady(std::uint64_t id) {
    const std::uint32_t* const status = groupStatus.find(id);
    return corvexGroups.contains(id) && published && status != nullptr && *status == 0;
  }

  // The match (Match.cpp). Throws: Report, std::range_error.
  [[nodiscard]] OpenFlowTable::Match buildMatch(const FlowKey& key, Handle handle) const;

  static void checkPort(Handle handle, std::uint32_t port, const std::string& what) {
    if (port == 0 || port > 0xFFFFFEFF) {
      throw Report{handle, 15,
                   what + ": port id " + std::to_string(port) + " is outside 1 to 4294967039"};
    }
  }
  [[nodiscard]] Interface::IntfId interfaceOf(std::uint32_t port) const {
    return Interface::IntfId{valueIn(ports, port).value_or("")};
  }
  static OpenFlowTable::TrafficClass trafficClass(std::uint8_t value) {
    inRange(value <= 16,
            "TrafficClass::value < TrafficClass::min or > TrafficClass::invalid not allowed");
    return OpenFlowTable::TrafficClass{value};
  }
  void buildActions(const FlowKey& key, const FlowRow& row, Translation& out, bool isLive) {
    using OpenFlowTable::Actions;
    const FlowActions& given = row.actions;
    Actions& built = out.flow.actions;
    const auto put = [&built](auto set, const auto& value, auto convert) {
      if (value) {
        (built.*set)(convert(*value), true);
      }
    };
    const auto same = [](const auto& value) { return value; };
    const auto mac = [](std::uint64_t address) { return valueOf<Korm::EthAddr>({address}); };
    put(&Actions::trafficClassIs, given.trafficClass, trafficClass);
    built.dropIs(given.drop);
    built.copyToCpuIs(given.copyToCpu);
    built.decTtlIs(given.decTtl);
    put(&Actions::setDscpIs, given.setDscp, same);
    put(&Actions::setEthSrcIs, given.setEthSrc, mac);
    put(&Actions::setEthDstIs, given.setEthDst, mac);
    put(&Actions::ingrMirrorIntfIs, given.mirrorIngress, same);
    put(&Actions::egrMirrorIntfIs, given.mirrorEgress, same);
    put(&Actions::outputIntfIs, given.output, [&](std::uint32_t port) {
      checkPort(row.handle, port, "egress port-id");
      return interfaceOf(port);
    });
    put(&Actions::vrfIs, given.vrf, same);
    put(&Actions::vlanIdIs, given.vlan, [](std::uint16_t id) {
      inRange(id <= 4094, "VlanIdOrNone::value > 4094 not allowed");
      return Bridging::VlanIdOrNone{id};
    });
    out.counted = true;
    if (isLive) {
      changeVrf(key, given.vrf, row.handle);
    }
    put(&Actions::policerIs, given.policer, same);
    put(&Actions::cpuTrafficClassIs, given.cpuTrafficClass, trafficClass);
    put(&Actions::groupIs, given.member, [](auto member) { return memberBase + member; });
    put(&Actions::groupIs, given.group, same);
  }
  // The first user of a VRF is its creator and the last one its deletor, unless there is one
  // already.
  void changeVrf(const FlowKey& key, std::optional<std::uint32_t> vrf, Handle handle) {
    const auto old = valueIn(vrfOf, key);
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

  // Members and groups.

  // What is refused is noted until it is processed again. Only a write of the row removes it.
  void processGroup(const auto* row, std::uint64_t corvexId, auto configure) {
    refusedGroups.erase(corvexId);
    if (row == nullptr) {
      removeGroup(corvexId);
      return result({batch[*current].handle});
    }
    try {
      configure(*row);
    } catch (const Report& refusal) {
      refusedGroups.insert(corvexId);
      result(refusal);
    }
  }
  void handleMember(std::uint32_t id) {
    processGroup(members.find(id), memberBase + id, [&](const MemberRow& row) {
      configureGroup(memberBase + id,
                     {.type = 2, .buckets = {bucketOf(id, row)}, .changeCount = now});
      eachRow(groups, AtDamage::stop_, [&](std::uint32_t group, const GroupRow& list) {
        if (std::count(list.members.begin(), list.members.end(), id) != 0 &&
            corvexGroups.contains(group)) {
          handleGroup(group);
        }
      });
    });
  }
  [[nodiscard]] OpenFlowTable::Actions bucketOf(std::uint32_t id, const MemberRow& row) {
    const std::string name = std::to_string(id);
    checkPort(row.handle, row.port, "Action profile member " + name);
    const auto* const encap = encaps.find(row.encap);
    if (encap == nullptr) {
      throw Report{
          row.handle, 15,
          "Action profile member: " + name + " has invalid encapId: " + std::to_string(row.encap)};
    }
    OpenFlowTable::Actions bucket;
    bucket.outputIntfIs(interfaceOf(row.port), true);
    bucket.encapIs(*encap, true);
    bucket.dstMacIs(valueOf<Korm::EthAddr>({row.dstMac}), row.dstMac != 0);
    bucket.srcMacIs(valueOf<Korm::EthAddr>({row.srcMac}), row.srcMac != 0);
    bucket.fixedBlockIs({0x00, 0x05, 0x41, 0x00, 0x40, 0x00, 0x00, 0x00}, true);
    return bucket;
  }
  void handleGroup(std::uint32_t id) {
    processGroup(groups.find(id), id, [&](const GroupRow& row) {
      CorvexGroupState group{.type = 1, .buckets = {}, .changeCount = now};
      for (const std::uint32_t member : row.members) {
        const auto programmed = corvexGroups.find(memberBase + member);
        if (programmed == corvexGroups.end()) {
          throw Report{row.handle, 15,
                       "Action profile group: " + std::to_string(id) + " member " +
                           std::to_string(member) + " not found"};
        }
        group.buckets.push_back(programmed->second.buckets.at(0));
      }
      if (!group.buckets.empty()) {
        configureGroup(id, group);
      }
    });
  }
  void handleEncap(std::uint16_t id) {
    eachRow(members, AtDamage::stop_, [&](std::uint32_t member, const MemberRow& row) {
      if (row.encap == id) {
        handleMember(member);
      }
    });
  }

  // Statuses of the hardware.

  void flowReported(const std::string& name) override {
    const std::uint32_t* const status = flowStatus.find(name);
    constexpr unsigned notFinal = 99, other = 19;
    constexpr std::array codes{notFinal, 0U,       0U,    notFinal, notFinal, 7U, 6U,
                               1U,       notFinal, other, other,    other,    6U, notFinal};
    const unsigned code = status == nullptr        ? 0
                          : *status < codes.size() ? codes.at(*status)
                                                   : other;
    const Handle handle = handleIn(name);
    if (!running || !published || code == notFinal ||
        (dependents.erase(handle) != 0 && !isStatusOpen(handle))) {
      return;  // also when the entry that it would be reported for is gone
    }
    result({handle, code});
  }
  [[nodiscard]] bool isStatusOpen(Handle handle) const {
    return books.contains(handle) && books.at(handle).statusOpen;
  }
  void groupReported(std::uint64_t id) override {
    const auto profile = static_cast<std::uint32_t>(id);
    const std::string number = std::to_string(profile);
    const std::uint32_t status = *groupStatus.find(id);
    if (id >= memberBase) {
      profileReported(members.find(profile), status, " member " + number);
    } else {
      profileReported(groups.find(profile), status, " group " + number);
    }
  }
  void profileReported(const auto* row, std::uint32_t status, const std::string& name) {
    if (!running || !published || row == nullptr || damaged.contains(row->handle) ||
        !isStatusOpen(row->handle)) {
      return;
    }
    constexpr std::array<std::pair<unsigned, const char*>, 3> failures{
        {{6, "Action not supported for"},
         {1, "Hardware resource exhausted for"},
         {19, "Unknown error to program"}}};
    if (status >= 2 && status <= 4) {
      const auto& [code, words] = failures.at(status - 2);
      books.at(row->handle).status = {row->handle, code, std::string{words} + " profile" + name};
    }
  }
};

}  // namespace Soak
