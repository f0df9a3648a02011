#include "Ostra/Audit.h"

#include <algorithm>
#include <charconv>

#include "Ostra/FlowUtil.h"
#include "Ostra/OstraStatus.h"
#include "Ostra/StatePaths.h"
#include "Ostra/private/AuditState.h"
#include "platform/Korm/Clock.h"
#include "platform/Korm/Text.h"
#include "platform/P4Runtime/BatchStatus.h"
#include "platform/P4Runtime/Telemetry.h"
#include "platform/P4Runtime/VrfIdCollection.h"

namespace Ostra {

std::string_view auditKindText(AuditKind kind) noexcept {
  static constexpr Korm::EnumTexts<AuditKind, 19> texts{{
      {AuditKind::corruptRow_, "corrupt-row"},
      {AuditKind::rowWithoutFlow_, "row-without-flow"},
      {AuditKind::flowWithoutRow_, "flow-without-row"},
      {AuditKind::flowDiffers_, "flow-differs"},
      {AuditKind::flowWithoutGroup_, "flow-without-group"},
      {AuditKind::indexDiffers_, "index-differs"},
      {AuditKind::indexWithoutRow_, "index-without-row"},
      {AuditKind::vrfDiffers_, "vrf-differs"},
      {AuditKind::vrfCount_, "vrf-count"},
      {AuditKind::vrfRecord_, "vrf-record"},
      {AuditKind::dependent_, "dependent"},
      {AuditKind::rowWithoutGroup_, "row-without-group"},
      {AuditKind::groupWithoutRow_, "group-without-row"},
      {AuditKind::groupDiffers_, "group-differs"},
      {AuditKind::hardwareWithdrawn_, "hardware-withdrawn"},
      {AuditKind::hardwareLacks_, "hardware-lacks"},
      {AuditKind::hardwareHolds_, "hardware-holds"},
      {AuditKind::hardwareFailed_, "hardware-failed"},
      {AuditKind::hardwareSilent_, "hardware-silent"},
  }};
  static_assert(Korm::hasAllTexts(texts, AuditKind::hardwareSilent_));
  return Korm::enumText(texts, kind);
}

std::size_t AuditReport::faults() const noexcept {
  return static_cast<std::size_t>(std::count_if(
      findings.begin(), findings.end(), [](const AuditFinding& finding) { return finding.fault; }));
}

std::optional<std::uint64_t> handleOf(const Korm::Name& flow) {
  std::uint64_t handle = 0;
  const char* const end = flow.data() + flow.size();
  if (!flow.starts_with(flowNamePrefix) ||
      std::from_chars(flow.data() + flowNamePrefix.size(), end, handle).ptr != end ||
      FlowName{handle}.text() != flow) {
    return std::nullopt;
  }
  return handle;
}

std::string corvexGroupName(OpenFlowTable::GroupId id) {
  return "Corvex group " + std::to_string(id);
}

AuditState::AuditState(const OstraContext& itsContext, const AuditOptions& itsOptions)
    : context{itsContext}, options{itsOptions}, now{Korm::currentTime()} {
  if (!context.ostraSmColl().empty()) {
    inputs = &context.ostraSmColl().begin()->second->inputs();
    if (inputs->cxHwStatusDir) {
      hardware = inputs->cxHwStatusDir->entityPtr<OpenFlowTable::HwStatus>(p4rtName);
    }
  }
}

bool AuditState::isReady(OpenFlowTable::GroupId group) const {
  const auto* const stats = hardware ? hardware->groupStats(group) : nullptr;
  return inputs->cxHwConfig->groupEntry(group) != nullptr && stats != nullptr &&
         stats->status() == OpenFlowTable::GroupStatus::ready_;
}

bool AuditState::underWay(P4Runtime::EntryHandle handle) const {
  return inputs->batchStatus && inputs->batchStatus->batchStatusEntry(handle) != nullptr;
}

void AuditState::readTelemetry() {
  telemetryRead_ = true;
  bool first = true;
  if (!inputs->telemetry) {
    return;
  }
  inputs->telemetry->forEachKept([&](const P4Runtime::Telemetry::Timestamp& stamp) {
    if (std::exchange(first, false) &&
        inputs->telemetry->total() > P4Runtime::Telemetry::capacity) {
      oldestStamp_ = stamp.time;
    }
    if (stamp.type == P4Runtime::TelemetryTimestampType::configured_) {
      configured_.tryEmplace(stamp.handle).first.value = stamp.time;
    }
  });
}

std::optional<double> AuditState::configuredAt(std::uint64_t handle) {
  if (!telemetryRead_) {
    readTelemetry();
  }
  const auto* const found = configured_.find(handle);
  return found == nullptr ? std::nullopt : std::optional{found->value};
}

bool AuditState::isOverdue(std::optional<double> since) const noexcept {
  // A time that is not known lies before the oldest time stamp that is kept.
  return now - since.value_or(oldestStamp_) > options.answerLimit;
}

namespace {

std::string vrfName(Vrf::VrfIdMap::VrfId vrf) { return "VRF " + std::to_string(vrf); }

void auditRecords(AuditState& state, const P4Runtime::VrfIdCollection::RootHandles& records,
                  const std::string& role) {
  for (const auto& record : records) {
    if (!state.underWay(record.value)) {
      state.fault(AuditKind::vrfRecord_, vrfName(record.key),
                  "no " + role + ", or one whose write is under way",
                  "entry " + std::to_string(record.value) + " as " + role,
                  "the service has not cleared the record when the write was complete");
    }
  }
}

// Compares the service's counts with the keys that the index counts in each VRF.
void auditCounts(AuditState& state, const P4Runtime::VrfIdCollection& books) {
  Korm::HashMap<Vrf::VrfIdMap::VrfId, std::uint32_t> users;
  for (const auto& [index, machine] : state.context.ostraSmColl()) {
    machine->forEachIndexed([&users](const OstraKey&, std::optional<std::uint64_t>,
                                     std::optional<Vrf::VrfIdMap::VrfId> vrf) {
      if (vrf) {
        ++users.tryEmplace(*vrf).first.value;
      }
    });
  }
  const auto compare = [&state](Vrf::VrfIdMap::VrfId vrf, std::uint32_t flows,
                                std::uint32_t count) {
    if (flows != count) {
      state.fault(AuditKind::vrfCount_, vrfName(vrf), std::to_string(flows) + " users",
                  "a count of " + std::to_string(count),
                  "somebody else counts this VRF, or the books were emptied under the library");
    }
  };
  for (const auto& user : users) {
    compare(user.key, user.value, books.vrfIdRefCount(user.key).value_or(0));
  }
  for (const auto& count : books.refCounts()) {
    if (users.find(count.key) == nullptr) {
      compare(count.key, 0, count.value);
    }
  }
}

void auditDependents(AuditState& state) {
  for (const auto& dependent : state.inputs->ostraStatusInfo->dependentHandleToVrfMap()) {
    if (state.underWay(dependent.key)) {
      continue;
    }
    const auto* const row = state.rows.find(dependent.key);
    const bool refused = row == nullptr || row->value.refused;
    state.finding(AuditKind::dependent_, !refused, "entry " + std::to_string(dependent.key),
                  "no write of the entry is under way, so nothing that its VRF waits for",
                  vrfName(dependent.value) + " waits for it",
                  refused ? "the entry was refused after it had been counted in its VRF"
                          : "the result of the entry did not reach the library");
  }
}

}  // namespace

void auditVrfs(AuditState& state) {
  if (const auto& books = state.inputs->vrfIdCollection) {
    auditCounts(state, *books);
    auditRecords(state, books->creators(), "creator");
    auditRecords(state, books->deletors(), "deletor");
    auditDependents(state);
  }
}

AuditReport audit(const OstraContext& context, const AuditOptions& options) {
  AuditState state{context, options};
  if (state.inputs != nullptr) {
    auditFlows(state);
    auditGroups(state);
    auditVrfs(state);
    auditHardware(state);
  }
  std::stable_sort(state.report.findings.begin(), state.report.findings.end(),
                   [](const AuditFinding& a, const AuditFinding& b) { return a.kind < b.kind; });
  state.report.seconds = Korm::currentTime() - state.now;
  return std::move(state.report);
}

}  // namespace Ostra
