#include "Ostra/OstraStatusSm.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Ostra/FlowUtil.h"
#include "Ostra/Trace.h"

namespace Ostra {
namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupStatus;
using P4Runtime::EntryHandle;
using P4Runtime::ErrorCode;

constexpr const char* p4rtStatus = "p4rt";

constexpr std::string_view scope = "OstraStatusSm::";
constexpr std::string_view flowHandler = "handleFlowHwStatus";
constexpr std::string_view groupHandler = "handleGroupHwStatus";

constinit Brisklog::TracePoint started{traceHandle, TraceLevel::routine, scope,
                                       "handleInitialized"};
constinit Brisklog::TracePoint allFlows{traceHandle, TraceLevel::routine, scope, flowHandler};
constinit Brisklog::TracePoint flowDeleted{traceHandle, TraceLevel::routine, scope, flowHandler,
                                           "Delete status update for flow: %s"};
constinit Brisklog::TracePoint flowChanged{traceHandle, TraceLevel::routine, scope, flowHandler,
                                           " Modify/insert status update for flow: %s status: %s"};
constinit Brisklog::TracePoint flowDependent{traceHandle, TraceLevel::routine, "", flowHandler,
                                             " dependentHandle:%s vrfId:%s"};

constinit Brisklog::TracePoint allGroups{traceHandle, TraceLevel::routine, scope, groupHandler};
constinit Brisklog::TracePoint oneGroup{traceHandle, TraceLevel::routine, scope, groupHandler,
                                        " groupId: %s"};
constinit Brisklog::TracePoint groupUnknown{traceHandle, TraceLevel::groupStatus, "", "",
                                            "group not in p4rt table for OF groupId: %s"};
constinit Brisklog::TracePoint memberUnknown{traceHandle, TraceLevel::groupStatus, "", "",
                                             "member not in p4rt table for OF groupId: %s"};
constinit Brisklog::TracePoint groupDeleted{traceHandle, TraceLevel::groupStatus, "", "",
                                            " group status deleted for group: %s"};
constinit Brisklog::TracePoint groupChanged{traceHandle, TraceLevel::groupStatus, "", "",
                                            "group status update for flow: %s status: %s"};

constexpr std::string_view dirScope = "OstraStatusDirSm::";
constinit Brisklog::TracePoint dirStarted{traceHandle, TraceLevel::routine, dirScope,
                                          "handleInitialized"};
constinit Brisklog::TracePoint wholeDir{traceHandle, TraceLevel::routine, dirScope,
                                        "handleStatusDir"};
constinit Brisklog::TracePoint oneOfDir{traceHandle, TraceLevel::routine, dirScope,
                                        "handleStatusDir", " %s"};
constinit Brisklog::TracePoint smCreated{traceHandle, TraceLevel::routine, "OstraStatusDirSm", "",
                                         " create statusSm"};
constinit Brisklog::TracePoint smDeleted{traceHandle, TraceLevel::routine, "OstraStatusDirSm", "",
                                         " delete statusSm"};

// The result of a flow's write by the status of the flow; none where the hardware is still at it.
constexpr std::array<std::optional<ErrorCode>, 14> flowResults{
    std::nullopt,                           // pending
    ErrorCode::success_,                    // programmed
    ErrorCode::success_,                    // programmed in software
    std::nullopt,                           // programming
    std::nullopt,                           // waiting for a group
    ErrorCode::matchNotSupported_,          // match not supported
    ErrorCode::actionNotSupported_,         // action not supported
    ErrorCode::hardwareResourceExhausted_,  // hardware full
    std::nullopt,                           // waiting for an interface
    ErrorCode::hardwareError_,              // hardware error
    ErrorCode::hardwareError_,              // invalid interface
    ErrorCode::hardwareError_,              // conflict
    ErrorCode::actionNotSupported_,         // action set not supported
    std::nullopt,                           // deleting
};
static_assert(flowResults.size() == static_cast<std::size_t>(FlowStatus::deleting_) + 1);

[[nodiscard]] constexpr std::optional<ErrorCode> flowResult(FlowStatus status) noexcept {
  const auto number = static_cast<std::size_t>(status);
  return number < flowResults.size() ? flowResults[number] : ErrorCode::hardwareError_;
}

// What the write of a group or member failed of, by the status of the group. Every other status leaves
// the write's result alone.
struct GroupFailure {
  GroupStatus status;
  ErrorCode code;
  std::string_view message;  // followed by what it is and its id
};
constexpr std::array<GroupFailure, 3> groupFailures{{
    {GroupStatus::actionNotSupported_, ErrorCode::actionNotSupported_,
     "Action not supported for profile"},
    {GroupStatus::hardwareFull_, ErrorCode::hardwareResourceExhausted_,
     "Hardware resource exhausted for profile"},
    {GroupStatus::hardwareError_, ErrorCode::hardwareError_, "Unknown error to program profile"},
}};

// What stands for a group of the hardware on the controller's side.
struct Profile {
  bool isMember;
  P4Runtime::MemberOrGroupId id;
};
[[nodiscard]] constexpr Profile profileOf(OpenFlowTable::GroupId group) noexcept {
  return {.isMember = group >> 32U != 0, .id = static_cast<P4Runtime::MemberOrGroupId>(group)};
}

void reportGroupFailure(P4Runtime::BatchStatusEntry& entry, const Profile& profile,
                        GroupStatus status) {
  const auto* const failure =
      std::find_if(groupFailures.begin(), groupFailures.end(),
                   [status](const GroupFailure& row) { return row.status == status; });
  if (failure != groupFailures.end()) {
    std::string message{failure->message};
    message += profile.isMember ? " member " : " group ";
    message += std::to_string(profile.id);
    entry.messageIs(message);
    entry.errorCodeIs(failure->code);
  }
}

// The handle of the entry that wrote a row; nothing when there is no such row, or no table, or the row is
// corrupt, of which the table's handler hears.
template <class Table>
[[nodiscard]] std::optional<EntryHandle> entryHandle(const Korm::Ptr<Table>& table,
                                                     P4Runtime::MemberOrGroupId id) {
  if (!table) {
    return std::nullopt;
  }
  try {
    const auto* const row = table->entry(id);
    return row == nullptr ? std::nullopt : std::optional{row->entryHandle};
  } catch (const Vasta::Corruption& corruption) {
    table->reportCorruption(corruption.what());
    return std::nullopt;
  }
}

}  // namespace

OstraStatusSm::OstraStatusSm(Korm::Ptr<const OpenFlowTable::HwStatus> cxHwStatus,
                             Korm::Ptr<P4Runtime::BatchStatus> batchStatus,
                             Korm::Ptr<OstraStatusInfo> ostraStatusInfo,
                             Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable,
                             Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable)
    : cxHwStatus_{std::move(cxHwStatus)},
      batchStatus_{std::move(batchStatus)},
      ostraStatusInfo_{std::move(ostraStatusInfo)},
      p4rtEcmpGroupTable_{std::move(p4rtEcmpGroupTable)},
      p4rtEcmpMemberTable_{std::move(p4rtEcmpMemberTable)},
      flowStatsReactor_{*this, cxHwStatus_->flowStatsNotifiees()},
      groupStatsReactor_{*this, cxHwStatus_->groupStatsNotifiees()} {
  flowStatsReactor_.hasNotificationActiveIs(false);
  groupStatsReactor_.hasNotificationActiveIs(false);
  handleInitialized();
  // After the reports, which may make the service change the status.
  handleCxHwStatus();
}

void OstraStatusSm::onNotificationActive(bool active) {
  flowStatsReactor_.hasNotificationActiveIs(active);
  groupStatsReactor_.hasNotificationActiveIs(active);
  for (auto& entry : flowReactors_) {
    entry.value.hasNotificationActiveIs(active);
  }
  for (auto& entry : groupReactors_) {
    entry.value.hasNotificationActiveIs(active);
  }
}

void OstraStatusSm::handleInitialized() {
  started();
  initialized_ = true;
  handleFlowHwStatus();
  handleGroupHwStatus();
}

void OstraStatusSm::handleCxHwStatus() {
  for (const auto& entry : cxHwStatus_->flowStats()) {
    flowStatsIs(entry.value);
  }
  for (const auto& entry : cxHwStatus_->groupStats()) {
    groupStatsIs(entry.value);
  }
}

void OstraStatusSm::handleFlowHwStatus(const Korm::Name& flowName) {
  reportFlow(flowName, cxHwStatus_->flowStats(flowName));
}

void OstraStatusSm::handleFlowHwStatus() {
  allFlows();
  for (const auto& entry : cxHwStatus_->flowStats()) {
    reportFlow(entry.key, &entry.value);
  }
}

void OstraStatusSm::reportFlow(const Korm::Name& name, const FlowStats* stats) {
  const EntryHandle handle{flowIdFromName(name)};
  std::optional<ErrorCode> result = ErrorCode::success_;
  if (stats == nullptr) {
    flowDeleted(name);
  } else {
    flowChanged(name, stats->status());
    result = flowResult(stats->status());
  }
  if (result) {
    reportResult(handle, *result);
  }
}

void OstraStatusSm::reportResult(EntryHandle handle, ErrorCode code) {
  const auto vrf =
      ostraStatusInfo_ ? ostraStatusInfo_->dependentHandleToVrfMap(handle) : std::nullopt;
  if (vrf) {
    reportDependentResult(handle, *vrf, code);
  } else if (batchStatus_) {
    batchStatus_->markTransaction(handle, code, "");
  }
}

void OstraStatusSm::reportDependentResult(EntryHandle handle, Vrf::VrfIdMap::VrfId vrf,
                                          ErrorCode code) {
  flowDependent(handle, vrf);
  const Korm::Ptr<OstraStatusInfo> info =
      ostraStatusInfo_;  // outlives this state machine if need be
  if (batchStatus_) {
    if (const auto root = batchStatus_->aggregatorStatus().rootStatusEntry(handle)) {
      const auto status = Korm::makePtr<P4Runtime::BatchStatusEntry>(handle);
      status->errorCodeIs(code);
      root->dependentEntryStatusIs(status);
    }
  }
  info->dependentHandleToVrfMapDel(handle);
}

void OstraStatusSm::handleFlowStats(const Korm::Name& name) {
  const Korm::Ptr<OstraStatusSm> self{this};
  const auto& flows = cxHwStatus_->flowStats();
  const std::uint32_t hash = OpenFlowTable::HwStatus::Flows::hash(name);
  const auto* flow = flows.find(name, hash);
  reportFlow(name, flow == nullptr ? nullptr : &flow->value);
  flow = flows.find(name, hash);  // the report may have made the service change the status
  if (flow != nullptr) {
    flowStatsIs(flow->value, hash);
  } else {
    flowReactors_.erase(name, hash);
  }
}

void OstraStatusSm::flowStatsIs(const FlowStats& flowStats) {
  flowStatsIs(flowStats, decltype(flowReactors_)::hash(flowStats.name()));
}

void OstraStatusSm::flowStatsIs(const FlowStats& flowStats, std::uint32_t hash) {
  const Korm::Name& name = flowStats.name();
  const auto [reactor, created] = flowReactors_.tryEmplaceHashed(hash, name, *this, flowStats);
  if (!created && !reactor.value.follows(flowStats)) {
    flowReactors_.erase(name, hash);
    flowReactors_.tryEmplaceHashed(hash, name, *this, flowStats);
  }
}

void OstraStatusSm::flowStatsDel(const Korm::Name& flowName) { flowReactors_.erase(flowName); }

void OstraStatusSm::flowStatsDelAll() { flowReactors_.clear(); }

void OstraStatusSm::handleGroupHwStatus(GroupId groupId) {
  reportGroup(groupId, cxHwStatus_->groupStats(groupId));
}

void OstraStatusSm::handleGroupHwStatus() {
  allGroups();
  for (const auto& entry : cxHwStatus_->groupStats()) {
    reportGroup(entry.key, &entry.value);
  }
}

void OstraStatusSm::reportGroup(GroupId id, const GroupStats* stats) {
  oneGroup(id);
  const Profile profile = profileOf(id);
  const auto handle = profile.isMember ? entryHandle(p4rtEcmpMemberTable_, profile.id)
                                       : entryHandle(p4rtEcmpGroupTable_, profile.id);
  if (!handle) {
    (profile.isMember ? memberUnknown : groupUnknown)(id);
    return;
  }
  if (stats == nullptr) {
    groupDeleted(id);
    return;
  }
  // The write may have been answered and its entry closed.
  const auto entry = batchStatus_ ? batchStatus_->batchStatusEntry(*handle) : nullptr;
  const GroupStatus status = stats->status();
  if (entry) {
    reportGroupFailure(*entry, profile, status);
  }
  groupChanged(id, status);
}

void OstraStatusSm::handleGroupStats(const GroupId& id) {
  const Korm::Ptr<OstraStatusSm> self{this};
  handleGroupHwStatus(id);
  if (const auto* const group = cxHwStatus_->groupStats(id)) {
    groupStatsIs(*group);
  } else {
    groupStatsDel(id);
  }
}

void OstraStatusSm::groupStatsIs(const GroupStats& groupStats) {
  const GroupId id = groupStats.id();
  const auto [reactor, created] = groupReactors_.tryEmplace(id, *this, groupStats);
  if (!created && !reactor.value.follows(groupStats)) {
    groupReactors_.erase(id);
    groupReactors_.tryEmplace(id, *this, groupStats);
  }
}

void OstraStatusSm::groupStatsDel(GroupId groupId) { groupReactors_.erase(groupId); }

void OstraStatusSm::groupStatsDelAll() { groupReactors_.clear(); }

OstraStatusDirSm::OstraStatusDirSm(Korm::Ptr<const Korm::Dir> cxStatusDir,
                                   Korm::Ptr<P4Runtime::BatchStatus> batchStatus,
                                   Korm::Ptr<OstraStatusInfo> ostraStatusInfo,
                                   Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable,
                                   Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable)
    : cxStatusDir_{std::move(cxStatusDir)},
      batchStatus_{std::move(batchStatus)},
      ostraStatusInfo_{std::move(ostraStatusInfo)},
      p4rtEcmpGroupTable_{std::move(p4rtEcmpGroupTable)},
      p4rtEcmpMemberTable_{std::move(p4rtEcmpMemberTable)},
      directoryReactor_{*this, cxStatusDir_->notifiees()} {
  directoryReactor_.hasNotificationActiveIs(false);
  handleInitialized();
}

void OstraStatusDirSm::onNotificationActive(bool active) {
  directoryReactor_.hasNotificationActiveIs(active);
  if (p4RtCxStatusSm_) {
    p4RtCxStatusSm_->hasNotificationActiveIs(active);
  }
}

void OstraStatusDirSm::handleInitialized() {
  dirStarted();
  initialized_ = true;
  handleStatusDir();
}

void OstraStatusDirSm::handleStatusDir(const Korm::Name& name) {
  oneOfDir(name);
  if (name != p4rtStatus) {
    return;
  }
  if (const auto status = cxStatusDir_->entityPtr<const OpenFlowTable::HwStatus>(name)) {
    smCreated();
    p4RtCxStatusSmIs(status, batchStatus_, ostraStatusInfo_, p4rtEcmpGroupTable_,
                     p4rtEcmpMemberTable_);
  } else if (p4RtCxStatusSm_) {
    smDeleted();
    p4RtCxStatusSmDel();
  }
}

void OstraStatusDirSm::handleStatusDir() {
  wholeDir();
  const auto& entities = cxStatusDir_->entities();
  for (auto entity = entities.begin(); entity != entities.end();) {
    const Korm::Name name = entity->first;  // a report may make somebody remove the entity
    handleStatusDir(name);
    entity = entities.upper_bound(name);
  }
}

void OstraStatusDirSm::handleDirectory(const Korm::Name& name) {
  const Korm::Ptr<OstraStatusDirSm> self{this};
  handleStatusDir(name);
}

Korm::Ptr<OstraStatusSm> OstraStatusDirSm::p4RtCxStatusSmIs(
    const Korm::Ptr<const OpenFlowTable::HwStatus>& hwStatus,
    const Korm::Ptr<P4Runtime::BatchStatus>& batchStatus,
    const Korm::Ptr<OstraStatusInfo>& ostraStatusInfo,
    const Korm::Ptr<P4RuntimeRouting::EcmpGroup>& p4rtEcmpGroupTable,
    const Korm::Ptr<P4RuntimeRouting::EcmpMember>& p4rtEcmpMemberTable) {
  const auto& present = p4RtCxStatusSm_;
  if (present && present->cxHwStatus() == hwStatus && present->batchStatus() == batchStatus &&
      present->ostraStatusInfo() == ostraStatusInfo &&
      present->p4rtEcmpGroupTable() == p4rtEcmpGroupTable &&
      present->p4rtEcmpMemberTable() == p4rtEcmpMemberTable) {
    return present;
  }
  auto fresh = ostraStatusSmFactory(hwStatus, batchStatus, ostraStatusInfo, p4rtEcmpGroupTable,
                                    p4rtEcmpMemberTable);
  p4RtCxStatusSmDel();
  p4RtCxStatusSm_ = std::move(fresh);
  return p4RtCxStatusSm_;
}

void OstraStatusDirSm::p4RtCxStatusSmDel() {
  // Off, because a report of its own may still be holding it.
  if (const auto removed = std::exchange(p4RtCxStatusSm_, nullptr)) {
    removed->hasNotificationActiveIs(false);
  }
}

Korm::Ptr<OstraStatusSm> ostraStatusSmFactory(
    Korm::Ptr<const OpenFlowTable::HwStatus> cxHwStatus,
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus, Korm::Ptr<OstraStatusInfo> ostraStatusInfo,
    Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable,
    Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable) {
  auto sm = Korm::makePtr<OstraStatusSm>(std::move(cxHwStatus), std::move(batchStatus),
                                         std::move(ostraStatusInfo), std::move(p4rtEcmpGroupTable),
                                         std::move(p4rtEcmpMemberTable));
  sm->hasNotificationActiveIs(true);
  return sm;
}

Korm::Ptr<OstraStatusDirSm> ostraStatusDirSmFactory(
    Korm::Ptr<const Korm::Dir> cxStatusDir, Korm::Ptr<P4Runtime::BatchStatus> batchStatus,
    Korm::Ptr<OstraStatusInfo> ostraStatusInfo,
    Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable,
    Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable) {
  auto sm = Korm::makePtr<OstraStatusDirSm>(
      std::move(cxStatusDir), std::move(batchStatus), std::move(ostraStatusInfo),
      std::move(p4rtEcmpGroupTable), std::move(p4rtEcmpMemberTable));
  sm->hasNotificationActiveIs(true);
  return sm;
}

}  // namespace Ostra
