// Flow rows against the index, the Corvex flows and the VRFs in which they count.

#include <algorithm>
#include <array>

#include "Ostra/FlowUtil.h"
#include "Ostra/private/AuditState.h"
#include "platform/Vasta/Errors.h"

namespace Ostra {
namespace {

using OpenFlowTable::FlowEntry;
using OpenFlowTable::Match;

constexpr const char* refusedBefore = "the row was refused";
constexpr const char* groupBefore =
    "the row was refused while its group was not ready; writing it again would succeed";

// The names of what two flows differ in.
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
  // Ports became other interfaces, and nothing else.
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

std::string refusalText(const FlowPreview& preview) { return "refused: " + preview.message; }

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
    auditRows();
    if (machine_.indexedKeys() != indexedRows_) {
      auditIndex();
    }
  }
  // Corvex flows that rows account for.
  [[nodiscard]] std::size_t flowsOfRows() const noexcept { return flowsOfRows_; }

 private:
  void auditRows() {
    const auto& table = machine_.inputs().ostraConfigTable;
    Vasta::Hint hint;
    while (table) {
      try {
        const OstraConfigEntry* const row = table->next(hint);
        if (row == nullptr) {
          return;
        }
        auditRow(*row);
      } catch (const Vasta::Corruption& corruption) {
        state_.fault(AuditKind::corruptRow_, "a flow table", "a row as it was written",
                     corruption.what(), "a stray write into the table's memory");
      }
    }
  }

  void auditRow(const OstraConfigEntry& row) {
    ++state_.report.rows;
    const FlowPreview preview = machine_.preview(row);
    const bool refersToGroup = row.memberGiven || row.groupGiven;
    AuditState::Row& known = state_.rows.tryEmplace(row.entryHandle).first.value;
    known = {.accepted = preview.accepted(), .refersToGroup = refersToGroup};
    indexedRows_ += preview.mappedHandle || preview.countedVrf ? 1 : 0;
    // Whether what is missing, or not up to date, is the consequence of a refusal.
    const bool wasRefused = !known.accepted || refersToGroup;
    if (preview.present == nullptr) {
      missingFlow(row, preview, wasRefused);
    } else {
      ++flowsOfRows_;
      presentFlow(row, preview);
      if (preview.mappedHandle != row.entryHandle) {
        state_.finding(AuditKind::indexDiffers_, !wasRefused, about(row),
                       handleText(row.entryHandle),
                       "its key is mapped to " + handleText(preview.mappedHandle),
                       wasRefused ? refusedBefore : "somebody else has changed the index");
      }
    }
    const auto wanted = row.vrfGiven ? std::optional{row.vrfId} : std::nullopt;
    const bool counted = preview.accepted() || preview.step > FlowStep::bookVrf_;
    if (preview.countedVrf != wanted) {
      state_.finding(AuditKind::vrfDiffers_, counted, about(row), vrfText(wanted),
                     "counts in " + vrfText(preview.countedVrf),
                     counted ? "somebody else has changed the index"
                             : "the row was refused before it was counted");
    }
  }

  void missingFlow(const OstraConfigEntry& row, const FlowPreview& preview, bool wasRefused) {
    const std::string expected = "the Corvex flow " + preview.name;
    if (!preview.accepted()) {
      state_.expected(AuditKind::rowWithoutFlow_, about(row), expected, refusalText(preview),
                      refusedBefore);
    } else if (preview.mappedHandle == row.entryHandle) {
      state_.fault(
          AuditKind::rowWithoutFlow_, about(row), expected, "no such flow",
          "somebody has deleted it, or another table's start has done so and the rows were "
          "not announced again");
    } else if (wasRefused) {
      state_.expected(AuditKind::rowWithoutFlow_, about(row), expected, "no such flow",
                      groupBefore);
    } else {
      state_.fault(AuditKind::rowWithoutFlow_, about(row), expected,
                   "no such flow, and its key is mapped to " + handleText(preview.mappedHandle),
                   "the library was not told of the row");
    }
  }

  void presentFlow(const OstraConfigEntry& row, const FlowPreview& preview) {
    // Up to here everything has been translated.
    const bool translated = preview.step >= FlowStep::group_;
    if (!translated) {
      state_.expected(AuditKind::flowDiffers_, preview.name, "what its row says now",
                      "what it said before; " + refusalText(preview), "the change was refused");
    } else if (!isAsPreviewed(preview, *preview.present)) {
      reportDifferences(preview);
    }
    if (preview.group && preview.group->state != GroupNeed::State::ready_) {
      state_.expected(AuditKind::flowWithoutGroup_, preview.name,
                      "a group " + std::to_string(preview.group->id) + " that is ready",
                      preview.group->state == GroupNeed::State::missing_
                          ? "no such group"
                          : "a group that is not ready",
                      "the group was deleted or has failed since the flow was written");
    }
    static_cast<void>(row);
  }

  void reportDifferences(const FlowPreview& preview) {
    const Differences differences{preview, *preview.present};
    const bool excused = !preview.accepted() || differences.interfacesOnly();
    state_.finding(AuditKind::flowDiffers_, !excused, preview.name,
                   "what its row translates to now", "another " + differences.names(),
                   !preview.accepted()            ? "the change was refused"
                   : differences.interfacesOnly() ? "a port was mapped to another interface since"
                                                  : "somebody else has written the flow");
  }

  // Keys that are in the index and have no row.
  void auditIndex() {
    machine_.forEachIndexed([this](const OstraKey& key, std::optional<std::uint64_t> handle,
                                   std::optional<VrfChange::VrfId> vrf) {
      const auto& table = machine_.inputs().ostraConfigTable;
      if (table && isStored(*table, key)) {
        return;
      }
      const bool flowThere =
          handle && state_.inputs->cxHwConfig &&
          state_.inputs->cxHwConfig->flowEntry(Korm::HashedName{FlowName{*handle}.text()});
      state_.finding(
          AuditKind::indexWithoutRow_, flowThere, handle ? handleText(handle) : vrfText(vrf),
          "no such key in the index",
          "a key without a row, mapped to " + handleText(handle) + ", counted in " + vrfText(vrf),
          flowThere ? "the library was not told of the delete"
                    : "when the row was deleted, its flow had gone or was never written");
    });
  }

  [[nodiscard]] static bool isStored(const OstraConfig& table, const OstraKey& key) {
    try {
      return table.entry(key) != nullptr;
    } catch (const Vasta::Corruption&) {
      return true;  // told of already
    }
  }

  [[nodiscard]] static std::string about(const OstraConfigEntry& row) {
    return "entry " + std::to_string(row.entryHandle);
  }

  AuditState& state_;
  const OstraSm& machine_;
  std::size_t indexedRows_ = 0;
  std::size_t flowsOfRows_ = 0;
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
