// Compares the Corvex configuration with the statuses of the hardware.

#include "Ostra/private/AuditState.h"
#include "Ostra/private/StatusResults.h"

namespace Ostra {
namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupStatus;

enum class Answer : std::uint8_t { holds_, failed_, none_ };

Answer answerOf(FlowStatus status) noexcept {
  const auto result = flowResult(status);
  return !result                                     ? Answer::none_
         : *result == P4Runtime::ErrorCode::success_ ? Answer::holds_
                                                     : Answer::failed_;
}

Answer answerOf(GroupStatus status) noexcept {
  return status == GroupStatus::ready_     ? Answer::holds_
         : status == GroupStatus::pending_ ? Answer::none_
                                           : Answer::failed_;
}

// Checks one flow or group. `stats` are its statistics, or null. `since` returns the time of its
// last write, from which an answer is due.
template <class Stats, class Since>
void auditOne(AuditState& state, const std::string& about, const Stats* stats, Since since) {
  const Answer answer = stats == nullptr ? Answer::none_ : answerOf(stats->status());
  if (answer == Answer::holds_) {
    return;
  }
  if (answer == Answer::failed_) {
    state.expected(AuditKind::hardwareFailed_, about, "a status of success",
                   "status " + std::to_string(static_cast<std::uint32_t>(stats->status())),
                   "the hardware has refused it");
    return;
  }
  if (!state.isOverdue(since())) {
    return;
  }
  if (stats == nullptr) {
    state.fault(AuditKind::hardwareLacks_, about, "a status of the hardware", "none",
                "the hardware has lost it, or was never told");
  } else {
    state.fault(AuditKind::hardwareSilent_, about, "an answer of the hardware",
                "status " + std::to_string(static_cast<std::uint32_t>(stats->status())),
                "the hardware is slow, or waits for something");
  }
}

void auditExtra(AuditState& state, const std::string& about, std::optional<double> since) {
  if (state.isOverdue(since)) {
    state.fault(AuditKind::hardwareHolds_, about, "nothing, since it is not in Corvex",
                "a status of the hardware", "the hardware has not let go of it");
  }
}

void auditHardwareFlows(AuditState& state) {
  const auto& flows = state.inputs->cxHwConfig->flowEntries();
  const auto& published = state.hardware->flowStats();
  std::size_t matched = 0;
  for (const auto& flow : flows) {
    const auto* const stats = state.hardware->flowStats(Korm::HashedName{flow.key});
    matched += stats != nullptr ? 1 : 0;
    if (state.belongsToRow(flow.key)) {
      auditOne(state, flow.key, stats, [&] { return state.configuredAt(*handleOf(flow.key)); });
    }
  }
  if (matched == published.size()) {
    return;
  }
  for (const auto& stats : published) {
    if (state.inputs->cxHwConfig->flowEntry(Korm::HashedName{stats.key}) == nullptr) {
      const auto handle = handleOf(stats.key);
      auditExtra(state, stats.key, handle ? state.configuredAt(*handle) : std::nullopt);
    }
  }
}

void auditHardwareGroups(AuditState& state) {
  const auto& config = *state.inputs->cxHwConfig;
  for (const auto& group : config.groupEntries()) {
    auditOne(state, corvexGroupName(group.key), state.hardware->groupStats(group.key),
             [&] { return std::optional{group.value.changeCount()}; });
  }
  for (const auto& stats : state.hardware->groupStats()) {
    if (config.groupEntry(stats.key) == nullptr) {
      auditExtra(state, corvexGroupName(stats.key), stats.value.changeCount());
    }
  }
}

}  // namespace

void auditHardware(AuditState& state) {
  if (!state.inputs->cxHwConfig) {
    return;
  }
  if (!state.hardware) {
    state.fault(AuditKind::hardwareWithdrawn_, "the hardware status", "an entity named p4rt",
                "none", "the hardware agent has not started, or has withdrawn it");
    return;
  }
  auditHardwareFlows(state);
  auditHardwareGroups(state);
}

}  // namespace Ostra
