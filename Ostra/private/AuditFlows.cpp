// Compares flow rows with the index, with the Corvex flows and with the VRFs that count them.

#include <algorithm>
#include <array>
#include <vector>

#include "Ostra/FlowUtil.h"
#include "Ostra/private/AuditState.h"

namespace Ostra {
namespace {

using OpenFlowTable::FlowEntry;
using OpenFlowTable::Match;

constexpr const char* refusedBefore = "the row was refused";

// Collects the names of the attributes in which two flows differ.
class Differences {
 public:
  Differences(const FlowPreview& wanted, const FlowEntry& present) {
    compareMatches(wanted.match, present.match());
    compareMatches(present.match(), wanted.match);
    OpenFlowTable::forEachAction([&](auto action) {
      const bool has = wanted.actions.has(action);
      const auto value = wanted.actions.value<action>();
      if (has != present.actions().has(action) ||
          (has && !(value == present.actions().template value<action>()))) {
        add(OpenFlowTable::actionInfo(action).name);
      }
    });
    compare("priority", wanted.priority == present.priority().value());
    compare("tableType", wanted.tableType == present.tableType());
    compare("priorityGroup", wanted.priorityGroupType == present.priorityGroupType());
    compare("entryId", wanted.entryId == present.entryId());
  }

  [[nodiscard]] bool none() const noexcept { return names_.empty(); }
  // Whether only interfaces differ, because ports were mapped anew.
  [[nodiscard]] bool interfacesOnly() const noexcept { return onlyInterfaces_; }
  [[nodiscard]] const std::string& names() const noexcept { return names_; }

 private:
  void compareMatches(const Match& a, const Match& b) {
    a.forEachSet([&](const OpenFlowTable::MatchFieldInfo& info, const auto& value) {
      bool same = false;
      b.forEachSet([&](const OpenFlowTable::MatchFieldInfo& other, const auto& otherValue) {
        if constexpr (std::is_same_v<decltype(value), decltype(otherValue)>) {
          same = same || (info.field == other.field && value == otherValue);
        }
      });
      compare(info.name, same);
    });
  }
  void compare(std::string_view name, bool same) {
    if (!same && names_.find(name) == std::string::npos) {
      add(name);
    }
  }
  void add(std::string_view name) {
    static constexpr std::array<std::string_view, 3> interfaces{"inIntf", "egressIntf",
                                                                "outputIntf"};
    names_.append(names_.empty() ? "" : ", ").append(name);
    onlyInterfaces_ = onlyInterfaces_ &&
                      std::find(interfaces.begin(), interfaces.end(), name) != interfaces.end();
  }

  std::string names_;
  bool onlyInterfaces_ = true;
};

bool isAsPreviewed(const FlowPreview& wanted, const FlowEntry& present) {
  return wanted.match == present.match() && wanted.actions == present.actions() &&
         wanted.priority == present.priority().value() && wanted.tableType == present.tableType() &&
         wanted.priorityGroupType == present.priorityGroupType() &&
         wanted.entryId == present.entryId();
}

// What a finding shows as found: "no such flow; refused: ...".
std::string foundText(const std::string& there, const FlowPreview& preview) {
  return preview.accepted() ? there : there + "; refused: " + preview.message;
}

std::string handleText(std::optional<std::uint64_t> handle) {
  return handle ? "entry " + std::to_string(*handle) : "no entry";
}

std::string vrfText(std::optional<VrfChange::VrfId> vrf) {
  return vrf ? "VRF " + std::to_string(*vrf) : "no VRF";
}

// One flow table.
class TableAudit {
 public:
  TableAudit(AuditState& state, const OstraSm& machine) : state_{state}, machine_{machine} {}

  void run() {
    state_.walk(
        machine_.inputs().ostraConfigTable, "flow table",
        [this](const OstraConfigEntry& row) { auditRow(row); }, [this] { ++corruptRows_; });
    if (machine_.indexedKeys() != indexedRows_) {
      auditIndex();
    }
  }
  // Corvex flows that rows account for.
  [[nodiscard]] std::size_t flowsOfRows() const noexcept { return flowsOfRows_; }

 private:
  void auditRow(const OstraConfigEntry& row) {
    ++state_.report.rows;
    const FlowPreview preview = machine_.preview(row);
    const bool refused = preview.refusedBefore;
    state_.rows.tryEmplace(row.entryHandle).first.value = {.refused = refused};
    indexedRows_ += preview.mappedHandle || preview.countedVrf ? 1 : 0;
    if (preview.present == nullptr) {
      missingFlow(row, preview);
    } else {
      ++flowsOfRows_;
      presentFlow(preview);
      if (preview.mappedHandle != row.entryHandle) {
        state_.finding(AuditKind::indexDiffers_, !refused, about(row), handleText(row.entryHandle),
                       "its key is mapped to " + handleText(preview.mappedHandle),
                       refused ? refusedBefore : "somebody else has changed the index");
      }
    }
    const auto wanted = row.vrfGiven ? std::optional{row.vrfId} : std::nullopt;
    // A refusal before that step depends only on the row, so the flow was never counted.
    const bool counted = !refused || preview.step > FlowStep::bookVrf_;
    if (preview.countedVrf != wanted) {
      state_.finding(AuditKind::vrfDiffers_, counted, about(row), vrfText(wanted),
                     "counts in " + vrfText(preview.countedVrf),
                     counted ? "somebody else has changed the index"
                             : "the row was refused before it was counted");
    }
  }

  void missingFlow(const OstraConfigEntry& row, const FlowPreview& preview) {
    const char* cause = "the library was not told of the row";
    if (preview.refusedBefore) {
      cause = preview.accepted() ? "the row was refused while its group was not ready; writing it "
                                   "again would succeed"
                                 : refusedBefore;
    } else if (preview.mappedHandle == row.entryHandle) {
      cause =
          "somebody has deleted it, or another table's start has done so and the rows were not "
          "announced again";
    }
    state_.finding(AuditKind::rowWithoutFlow_, !preview.refusedBefore, about(row),
                   "the Corvex flow " + preview.name, foundText("no such flow", preview), cause);
  }

  void presentFlow(const FlowPreview& preview) {
    // The preview is complete only if the translation has reached this step.
    if (preview.step < FlowStep::group_) {
      state_.finding(AuditKind::flowDiffers_, !preview.refusedBefore, preview.name,
                     "what its row says now", foundText("another flow", preview),
                     preview.refusedBefore ? "the change was refused"
                                           : "somebody else has written the flow or its row");
    } else if (!isAsPreviewed(preview, *preview.present)) {
      reportDifferences(preview);
    }
    const OpenFlowTable::Actions& actions = preview.present->actions();
    if (actions.has(OpenFlowTable::Action::group_) && !state_.isReady(actions.group())) {
      const bool there = state_.inputs->cxHwConfig->groupEntry(actions.group()) != nullptr;
      state_.expected(AuditKind::flowWithoutGroup_, preview.name,
                      "a group " + std::to_string(actions.group()) + " that is ready",
                      there ? "a group that is not ready" : "no such group",
                      "the group was deleted or has failed since the flow was written");
    }
  }

  void reportDifferences(const FlowPreview& preview) {
    const Differences differences{preview, *preview.present};
    const bool excused = preview.refusedBefore || differences.interfacesOnly();
    state_.finding(AuditKind::flowDiffers_, !excused, preview.name,
                   "what its row translates to now", "another " + differences.names(),
                   preview.refusedBefore          ? "the change was refused"
                   : differences.interfacesOnly() ? "a port was mapped to another interface since"
                                                  : "somebody else has written the flow");
  }

  // A key of the index.
  struct Indexed {
    std::optional<std::uint64_t> handle;
    std::optional<VrfChange::VrfId> vrf;
    bool flowThere = false;
  };

  // Finds keys in the index that have no row. A corrupt row may account for such a key.
  void auditIndex() {
    std::vector<Indexed> missing;
    machine_.forEachIndexed([&](const OstraKey& key, std::optional<std::uint64_t> handle,
                                std::optional<VrfChange::VrfId> vrf) {
      const auto& config = state_.inputs->cxHwConfig;
      const Indexed indexed{
          handle, vrf,
          handle && config && config->flowEntry(Korm::HashedName{FlowName{*handle}.text()})};
      const auto stored = AuditState::has(machine_.inputs().ostraConfigTable, key);
      if (!stored) {
        attributeToCorruptRow(indexed);
      } else if (!*stored) {
        missing.push_back(indexed);
      }
    });
    for (const Indexed& indexed : missing) {
      if (indexed.flowThere && corruptRows_ > 0) {
        attributeToCorruptRow(indexed);
      } else {
        reportIndexedWithoutRow(indexed);
      }
    }
  }

  // The key is taken to be a corrupt row's, whose Corvex flow is then accounted for.
  void attributeToCorruptRow(const Indexed& indexed) {
    corruptRows_ -= corruptRows_ > 0 ? 1 : 0;
    flowsOfRows_ += indexed.flowThere ? 1 : 0;
    if (indexed.handle) {
      state_.rows.tryEmplace(*indexed.handle);
    }
  }

  void reportIndexedWithoutRow(const Indexed& indexed) {
    const auto& [handle, vrf, flowThere] = indexed;
    state_.finding(
        AuditKind::indexWithoutRow_, flowThere, handle ? handleText(handle) : vrfText(vrf),
        "no such key in the index",
        "a key without a row, mapped to " + handleText(handle) + ", counted in " + vrfText(vrf),
        flowThere ? "the library was not told of the delete"
                  : "when the row was deleted, its flow had gone or was never written");
  }

  [[nodiscard]] static std::string about(const OstraConfigEntry& row) {
    return "entry " + std::to_string(row.entryHandle);
  }

  AuditState& state_;
  const OstraSm& machine_;
  std::size_t indexedRows_ = 0;
  std::size_t flowsOfRows_ = 0;
  std::size_t corruptRows_ = 0;  // those that no flow was attributed to yet
};

}  // namespace

void auditFlows(AuditState& state) {
  std::size_t flowsOfRows = 0;
  for (const auto& [index, machine] : state.context.ostraSmColl()) {
    TableAudit table{state, *machine};
    table.run();
    flowsOfRows += table.flowsOfRows();
  }
  if (!state.inputs->cxHwConfig) {
    return;
  }
  const auto& flows = state.inputs->cxHwConfig->flowEntries();
  state.report.flows = flows.size();
  if (flows.size() == flowsOfRows) {
    return;
  }
  for (const auto& flow : flows) {
    if (!state.belongsToRow(flow.key)) {
      state.fault(AuditKind::flowWithoutRow_, flow.key, "no such Corvex flow", "the flow",
                  "somebody else has written it; the next start of the library deletes it");
    }
  }
}

}  // namespace Ostra
