// What an audit of the switch in this state has to find.
#include <algorithm>

#include "tests/soak/Model.h"

namespace Soak {
namespace {

using OpenFlowTable::Match;

bool differOnlyInPorts(CorvexFlowState a, const CorvexFlowState& b) {
  a.match.inIntfIs(b.match.inIntf, b.match.has(Match::Field::inIntf_));
  a.match.egressIntfIs(b.match.egressIntf, b.match.has(Match::Field::egressIntf_));
  a.actions.outputIntfIs(b.actions.outputIntf(), b.actions.has(OpenFlowTable::Action::outputIntf_));
  return a == b;
}

}  // namespace

void Model::Findings::add(bool isFault, const std::string& what, std::uint64_t number) {
  found.push_back((isFault ? "fault " : "expected ") + what + std::to_string(number));
}

void Model::Findings::hardware(const std::uint32_t* status, const std::set<std::uint32_t>& held,
                               const std::set<std::uint32_t>& underWay, const std::string& name) {
  if (status == nullptr) {
    found.push_back("fault hardware-lacks " + name);
  } else if (!held.contains(*status)) {
    found.push_back(
        (underWay.contains(*status) ? "fault hardware-silent " : "expected hardware-failed ") +
        name);
  }
}

std::optional<Lines> Model::audit() {
  Findings out;
  for (auto& table : flowTables) {
    auditTable(table, out);
  }
  auditGroups(out);
  auditHardware(out);
  for (const auto& [handle, vrf] : dependents) {
    const auto book = books_.find(handle);
    if (book == books_.end() || !book->second.statusOpen) {
      const auto row = out.rows.find(handle);
      out.add(row != out.rows.end() && !row->second, "dependent entry ", handle);
    }
  }
  std::sort(out.found.begin(), out.found.end());
  return out.decided ? std::optional{out.found} : std::nullopt;
}

void Model::auditTable(SlotMap<FlowKey, FlowRow>& table, Findings& out) {
  std::size_t unreadable = 0;  // and not in the index
  const auto index = static_cast<std::size_t>(&table - flowTables.data());
  table.each([&](const FlowKey& key, const FlowRow& row) {
    if (!row.damaged) {
      return auditRow(key, row, out);
    }
    out.found.emplace_back("fault corrupt-row flow table");
    const auto mapped = handleOf.find(key);
    unreadable += mapped == handleOf.end() && !vrfOf.contains(key) ? 1 : 0;
    if (mapped != handleOf.end()) {
      out.rows[mapped->second] = false;
    }
  });
  for (const auto& [key, handle] : handleOf) {
    if (key.table == index && table.find(key) == nullptr) {
      const bool flowThere = corvexFlows.find(flowName(handle)) != nullptr;
      out.decided = out.decided && (!flowThere || unreadable == 0);
      out.add(flowThere, "index-without-row entry ", handle);
    }
  }
  for (const auto& [key, vrf] : vrfOf) {
    if (key.table == index && table.find(key) == nullptr && !handleOf.contains(key)) {
      out.add(false, "index-without-row VRF ", vrf);
    }
  }
}

void Model::auditRow(const FlowKey& key, const FlowRow& row, Findings& out) {
  const bool refused = out.rows[row.handle] = refusedFlows_.contains(key);
  Translation now;
  try {
    translate(key, row, now, false);
  } catch (const EntryError&) {
  } catch (const RangeError&) {
  }
  if (const CorvexFlowState* const flow = corvexFlows.find(flowName(row.handle))) {
    now.flow.changeCount = flow->changeCount;
    if (!now.translated || !(now.flow == *flow)) {
      const bool ports = now.translated && differOnlyInPorts(now.flow, *flow);
      out.add(!refused && !ports, "flow-differs flow-", row.handle);
    }
    if (flow->actions.has(OpenFlowTable::Action::group_) && !groupReady(flow->actions.group())) {
      out.add(false, "flow-without-group flow-", row.handle);
    }
    const auto mapped = handleOf.find(key);
    if (mapped == handleOf.end() || mapped->second != row.handle) {
      out.add(!refused, "index-differs entry ", row.handle);
    }
  } else {
    out.add(!refused, "row-without-flow entry ", row.handle);
  }
  const auto held = vrfOf.find(key);
  if ((held == vrfOf.end() ? std::nullopt : std::optional{held->second}) != row.actions.vrf) {
    out.add(!refused || now.counted, "vrf-differs entry ", row.handle);
  }
}

void Model::auditGroups(Findings& out) {
  std::set<std::uint64_t> accounted;
  const auto audited = [&](auto& rows, std::uint64_t base, const char* table, auto audit) {
    bool behindDamage = false;
    rows.each([&](std::uint32_t id, const auto& row) {
      accounted.insert(base + id);
      const auto group = corvexGroups.find(base + id);
      if (!row.damaged) {
        return audit(id, row, group == corvexGroups.end() ? nullptr : &group->second,
                     refusedGroups_.contains(base + id) || behindDamage);
      }
      behindDamage = true;
      out.found.push_back(std::string{"fault corrupt-row "} + table);
      out.groupless += group == corvexGroups.end() ? 1 : 0;
    });
  };
  audited(members, memberBase, "member table",
          [&](std::uint32_t id, const MemberRow& row, const CorvexGroupState* group, bool refused) {
            auditMember(id, row, group, refused, out);
          });
  audited(groups, 0, "group table",
          [&](std::uint32_t id, const GroupRow& row, const CorvexGroupState* group, bool refused) {
            auditGroup(id, row, group, refused, out);
          });
  for (const auto& [id, group] : corvexGroups) {
    if (!accounted.contains(id)) {
      out.decided = out.decided && out.groupless == 0;
      out.add(group.changeCount > startedAt_, "group-without-row Corvex group ", id);
    }
  }
}

void Model::auditMember(std::uint32_t id, const MemberRow& row, const CorvexGroupState* group,
                        bool excused, Findings& out) {
  if (group == nullptr) {
    return out.add(!excused, "row-without-group member ", id);
  }
  std::optional<OpenFlowTable::Actions> bucket;
  try {
    bucket = bucketOf(id, row);
  } catch (const EntryError&) {
  }
  if (bucket != group->buckets.at(0)) {
    const OpenFlowTable::Actions& present = group->buckets.at(0);
    if (bucket) {
      bucket->outputIntfIs(present.outputIntf(), true);
    }
    out.add(!excused && bucket != present, "group-differs member ", id);
  }
}

void Model::auditGroup(std::uint32_t id, const GroupRow& row, const CorvexGroupState* group,
                       bool excused, Findings& out) {
  if (group == nullptr) {
    return out.add(!excused && !row.members.empty(), "row-without-group group ", id);
  }
  bool kept = refusedGroups_.contains(id) || row.members.empty();
  bool differs = !kept && group->buckets.size() != row.members.size();
  for (std::size_t at = 0; !kept && !differs && at < row.members.size(); ++at) {
    const auto member = corvexGroups.find(memberBase + row.members[at]);
    differs = member != corvexGroups.end() && !(member->second.buckets.at(0) == group->buckets[at]);
  }
  for (const std::uint32_t member : row.members) {
    kept = kept || members.find(member) == nullptr;
  }
  if (kept || differs) {
    out.add(differs && !excused, "group-differs group ", id);
  }
}

void Model::auditHardware(Findings& out) {
  corvexFlows.each([&](const std::string& name, const CorvexFlowState&) {
    if (std::none_of(out.rows.begin(), out.rows.end(),
                     [&](const auto& row) { return flowName(row.first) == name; })) {
      out.found.push_back("fault flow-without-row " + name);
    } else if (published) {
      out.hardware(flowStatus.find(name), {1, 2}, {0, 3, 4, 8, 13}, name);
    }
  });
  if (!published) {
    out.found.emplace_back("fault hardware-withdrawn the hardware status");
    return;
  }
  const std::string group = "Corvex group ";
  for (const auto& [id, state] : corvexGroups) {
    out.hardware(groupStatus.find(id), {0}, {1}, group + std::to_string(id));
  }
  flowStatus.each([&](const std::string& name, std::uint32_t) {
    if (corvexFlows.find(name) == nullptr) {
      out.found.push_back("fault hardware-holds " + name);
    }
  });
  groupStatus.each([&](std::uint64_t id, std::uint32_t) {
    if (!corvexGroups.contains(id)) {
      out.found.push_back("fault hardware-holds " + group + std::to_string(id));
    }
  });
}

}  // namespace Soak
