// The findings that an audit of the switch must have.
#include "tests/soak/Model.h"

namespace Soak {
namespace {

using OpenFlowTable::Actions;
using OpenFlowTable::Match;

bool differOnlyInPorts(CorvexFlowState a, const CorvexFlowState& b) {
  a.match.inIntfIs(b.match.inIntf, b.match.has(Match::Field::inIntf_));
  a.match.egressIntfIs(b.match.egressIntf, b.match.has(Match::Field::egressIntf_));
  a.actions.outputIntfIs(b.actions.outputIntf(), b.actions.has(OpenFlowTable::Action::outputIntf_));
  return a == b;
}

struct Audit {
  Model& model;
  Lines found{};
  std::map<Handle, bool> rows{};  // whether the last write was refused
  std::size_t groupless = 0;      // damaged rows without a Corvex group
  bool decided = true;

  void add(bool isFault, const std::string& what, std::uint64_t number) {
    found.push_back((isFault ? "fault " : "expected ") + what + std::to_string(number));
  }

  void table(std::size_t index) {
    auto& table = model.flowTables.at(index);
    std::size_t unreadable = 0;  // and not in the index
    table.each([&](const FlowKey& key, const FlowRow& row) {
      if (!model.damaged.contains(row.handle)) {
        return flow(key, row);
      }
      found.emplace_back("fault corrupt-row flow table");
      if (const auto mapped = valueIn(model.handleOf, key)) {
        rows[*mapped] = false;
      } else {
        unreadable += model.vrfOf.contains(key) ? 0 : 1;
      }
    });
    for (const auto& [key, handle] : model.handleOf) {
      if (key.table == index && table.find(key) == nullptr) {
        const bool flowThere = model.corvexFlows.find(flowName(handle)) != nullptr;
        decided = decided && (!flowThere || unreadable == 0);
        add(flowThere, "index-without-row entry ", handle);
      }
    }
    for (const auto& [key, vrf] : model.vrfOf) {
      if (key.table == index && table.find(key) == nullptr && !model.handleOf.contains(key)) {
        add(false, "index-without-row VRF ", vrf);
      }
    }
  }
  void flow(const FlowKey& key, const FlowRow& row) {
    const bool refused = rows[row.handle] = model.refusedFlows.contains(key);
    Translation now;
    try {
      model.translate(key, row, now, false);
    } catch (const Report&) {
    } catch (const std::range_error&) {
    }
    if (const CorvexFlowState* const flow = model.corvexFlows.find(flowName(row.handle))) {
      now.flow.changeCount = flow->changeCount;
      if (!now.translated || !(now.flow == *flow)) {
        const bool ports = now.translated && differOnlyInPorts(now.flow, *flow);
        add(!refused && !ports, "flow-differs flow-", row.handle);
      }
      if (flow->actions.has(OpenFlowTable::Action::group_) &&
          !model.groupReady(flow->actions.group())) {
        add(false, "flow-without-group flow-", row.handle);
      }
      if (valueIn(model.handleOf, key) != row.handle) {
        add(!refused, "index-differs entry ", row.handle);
      }
    } else {
      add(!refused, "row-without-flow entry ", row.handle);
    }
    if (valueIn(model.vrfOf, key) != row.actions.vrf) {
      add(!refused || now.counted, "vrf-differs entry ", row.handle);
    }
  }

  void groups() {
    std::set<std::uint64_t> accounted;
    const auto each = [&](auto& stored, std::uint64_t base, const std::string& kind) {
      bool behindDamage = false;
      stored.each([&](std::uint32_t id, const auto& row) {
        accounted.insert(base + id);
        const auto group = model.corvexGroups.find(base + id);
        const bool isThere = group != model.corvexGroups.end();
        const bool excused = model.refusedGroups.contains(base + id) || behindDamage;
        if (model.damaged.contains(row.handle)) {
          behindDamage = true;
          found.push_back("fault corrupt-row " + kind + " table");
          groupless += isThere ? 0 : 1;
        } else if (isThere) {
          compare(id, row, group->second.buckets, excused);
        } else {
          add(!excused && wantsGroup(row), "row-without-group " + kind + " ", id);
        }
      });
    };
    each(model.members, memberBase, "member");
    each(model.groups, 0, "group");
    for (const auto& [id, group] : model.corvexGroups) {
      if (!accounted.contains(id)) {
        decided = decided && groupless == 0;
        add(group.changeCount > model.startedAt, "group-without-row Corvex group ", id);
      }
    }
  }
  static bool wantsGroup(const MemberRow& /*row*/) { return true; }
  static bool wantsGroup(const GroupRow& row) { return !row.members.empty(); }
  void compare(std::uint32_t id, const MemberRow& row, const std::vector<Actions>& buckets,
               bool excused) {
    std::optional<Actions> bucket;
    try {
      bucket = model.bucketOf(id, row);
    } catch (const Report&) {
    }
    const Actions& present = buckets.at(0);
    if (bucket != present) {
      if (bucket) {
        bucket->outputIntfIs(present.outputIntf(), true);
      }
      add(!excused && bucket != present, "group-differs member ", id);
    }
  }
  void compare(std::uint32_t id, const GroupRow& row, const std::vector<Actions>& buckets,
               bool excused) {
    bool kept = model.refusedGroups.contains(id) || row.members.empty();
    bool differs = !kept && buckets.size() != row.members.size();
    for (std::size_t at = 0; !kept && !differs && at < row.members.size(); ++at) {
      const auto member = model.corvexGroups.find(memberBase + row.members[at]);
      differs =
          member != model.corvexGroups.end() && !(member->second.buckets.at(0) == buckets[at]);
    }
    for (const std::uint32_t member : row.members) {
      kept = kept || model.members.find(member) == nullptr;
    }
    if (kept || differs) {
      add(differs && !excused, "group-differs group ", id);
    }
  }

  void hardware() {
    model.corvexFlows.each([&](const std::string& name, const CorvexFlowState&) {
      if (std::none_of(rows.begin(), rows.end(),
                       [&](const auto& row) { return flowName(row.first) == name; })) {
        found.push_back("fault flow-without-row " + name);
      } else if (model.published) {
        answer(model.flowStatus.find(name), {1, 2}, {0, 3, 4, 8, 13}, name);
      }
    });
    if (!model.published) {
      found.emplace_back("fault hardware-withdrawn the hardware status");
      return;
    }
    const std::string group = "Corvex group ";
    for (const auto& [id, state] : model.corvexGroups) {
      answer(model.groupStatus.find(id), {0}, {1}, group + std::to_string(id));
    }
    model.flowStatus.each([&](const std::string& name, std::uint32_t) {
      if (model.corvexFlows.find(name) == nullptr) {
        found.push_back("fault hardware-holds " + name);
      }
    });
    model.groupStatus.each([&](std::uint64_t id, std::uint32_t) {
      if (!model.corvexGroups.contains(id)) {
        found.push_back("fault hardware-holds " + group + std::to_string(id));
      }
    });
  }
  // Of a status that may be missing.
  void answer(const std::uint32_t* status, const std::set<std::uint32_t>& held,
              const std::set<std::uint32_t>& underWay, const std::string& name) {
    if (status == nullptr) {
      found.push_back("fault hardware-lacks " + name);
    } else if (!held.contains(*status)) {
      found.push_back(
          (underWay.contains(*status) ? "fault hardware-silent " : "expected hardware-failed ") +
          name);
    }
  }

  void dependents() {
    for (const auto& [handle, vrf] : model.dependents) {
      if (!model.isStatusOpen(handle)) {
        add(valueIn(rows, handle) == false, "dependent entry ", handle);
      }
    }
  }
};

}  // namespace

std::optional<Lines> Model::audit() {
  Audit audit{*this};
  for (std::size_t index = 0; index < flowTables.size(); ++index) {
    audit.table(index);
  }
  audit.groups();
  audit.hardware();
  audit.dependents();
  std::sort(audit.found.begin(), audit.found.end());
  return audit.decided ? std::optional{audit.found} : std::nullopt;
}

}  // namespace Soak
