#include "p4rt/core/Audit.h"

#include <algorithm>
#include <limits>
#include <map>
#include <set>

#include "Ostra/GroupNumbering.h"
#include "p4rt/core/Change.h"
#include "platform/Korm/Exceptions.h"

namespace P4rt {
namespace {

using Handles = std::map<std::uint8_t, std::set<std::uint64_t>>;  // by flow table
using VrfUsers = std::map<Vrf::VrfIdMap::VrfId, std::uint32_t>;
using GroupIds = std::set<OpenFlowTable::GroupId>;

struct Holdings {
  Handles handles;
  VrfUsers vrfUsers;
  GroupIds groups;
};

Holdings storedHoldings(const Pipeline& pipeline, const Store& store) {
  Holdings holdings;
  for (const auto& [id, table] : pipeline.tables()) {
    for (const auto& flow : store.flows(table)) {
      holdings.handles[table.index].insert(flow.value.handle);
      const Ostra::OstraConfigEntry row = rowOf(flow.key, flow.value);
      if (row.vrfGiven) {
        ++holdings.vrfUsers[row.vrfId];
      }
      if (flow.value.oneShot) {
        holdings.groups.insert(Ostra::ecmpGroupId(flow.value.oneShot->group));
        for (const OneShot::Action& action : flow.value.oneShot->actions) {
          holdings.groups.insert(Ostra::memberGroupId(action.member));
        }
      }
    }
  }
  for (const auto& member : store.members()) {
    holdings.groups.insert(Ostra::memberGroupId(member.key));
  }
  for (const auto& group : store.groups()) {
    if (!group.value.members.empty()) {
      holdings.groups.insert(Ostra::ecmpGroupId(group.key));
    }
  }
  return holdings;
}

Holdings switchHoldings(const Sim::Service& service) {
  Holdings holdings;
  for (const Sim::TableView& table : service.entries()) {
    for (const Sim::EntryView& entry : table.entries) {
      holdings.handles[table.table].insert(entry.handle);
      Korm::assertTrue(entry.indexed, "the library knows every row");
    }
  }
  for (const Sim::VrfView& vrf : service.vrfs()) {
    if (vrf.refCount != 0) {
      holdings.vrfUsers[vrf.vrf] = vrf.refCount;
    }
  }
  for (const auto* const group : service.groups()) {
    holdings.groups.insert(group->id());
  }
  return holdings;
}

// The first fault in the switch's own audit, or empty. Slow hardware is no fault.
std::string faultOf(const Sim::Service& service) {
  const auto report = service.audit({.answerLimit = std::numeric_limits<double>::infinity()});
  const auto& findings = report.value().findings;
  const auto fault = std::find_if(findings.begin(), findings.end(),
                                  [](const auto& finding) { return finding.fault; });
  return fault == findings.end()
             ? std::string{}
             : std::string{auditKindText(fault->kind)} + " " + fault->about + ": " + fault->found;
}

}  // namespace

void audit(const Pipeline& pipeline, const Store& store, const Sim::Service& service) {
  store.verify();
  service.verify();
  const std::string fault = faultOf(service);
  Korm::assertTrue(fault.empty(), fault.c_str());
  const Holdings stored = storedHoldings(pipeline, store);
  const Holdings held = switchHoldings(service);
  Korm::assertTrue(stored.handles == held.handles, "the switch holds the rows of the entries");
  Korm::assertTrue(stored.vrfUsers == held.vrfUsers, "the switch counts the users of VRFs");
  Korm::assertTrue(stored.groups == held.groups, "Corvex holds the members and groups");
}

}  // namespace P4rt
