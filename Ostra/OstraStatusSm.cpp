#include "Ostra/OstraStatusSm.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Ostra/FlowUtil.h"
#include "Ostra/StatePaths.h"
#include "Ostra/Trace.h"
#include "Ostra/private/StatusResults.h"
#include "Ostra/private/TableRows.h"

namespace Ostra {
namespace {

using Brisklog::TracePoint;
using OpenFlowTable::GroupStatus;
using P4Runtime::EntryHandle;
using P4Runtime::ErrorCode;

constexpr const char* unit = "Ostra/OstraStatus";  // the trace shows one unit for all its files
constexpr std::string_view scope = "OstraStatusSm::";
constexpr std::string_view flowHandler = "handleFlowHwStatus";
constexpr std::string_view groupHandler = "handleGroupHwStatus";
constexpr int routine = TraceLevel::routine;
constexpr int groupLevel = TraceLevel::groupStatus;

constinit TracePoint traceInitialized{traceHandle, routine, scope, "handleInitialized", "", unit};
constinit TracePoint traceAllFlows{traceHandle, routine, scope, flowHandler, "", unit};
constinit TracePoint traceFlowDeleted{
    traceHandle, routine, scope, flowHandler, "Delete status update for flow: %s", unit};
constinit TracePoint traceFlowChanged{traceHandle,
                                      routine,
                                      scope,
                                      flowHandler,
                                      " Modify/insert status update for flow: %s status: %s",
                                      unit};
constinit TracePoint traceDependent{
    traceHandle, routine, "", flowHandler, " dependentHandle:%s vrfId:%s", unit};

constinit TracePoint traceAllGroups{traceHandle, routine, scope, groupHandler, "", unit};
constinit TracePoint traceGroup{traceHandle, routine, scope, groupHandler, " groupId: %s", unit};
constinit TracePoint traceGroupUnknown{
    traceHandle, groupLevel, "", "", "group not in p4rt table for OF groupId: %s", unit};
constinit TracePoint traceMemberUnknown{
    traceHandle, groupLevel, "", "", "member not in p4rt table for OF groupId: %s", unit};
constinit TracePoint traceGroupDeleted{
    traceHandle, groupLevel, "", "", " group status deleted for group: %s", unit};
constinit TracePoint traceGroupChanged{
    traceHandle, groupLevel, "", "", "group status update for flow: %s status: %s", unit};

constexpr std::string_view dirClass = "OstraStatusDirSm";
constexpr std::string_view dirScope = "OstraStatusDirSm::";
constexpr std::string_view dirHandler = "handleStatusDir";

constinit TracePoint traceDirInitialized{traceHandle,         routine, dirScope,
                                         "handleInitialized", "",      unit};
constinit TracePoint traceWholeDir{traceHandle, routine, dirScope, dirHandler, "", unit};
constinit TracePoint traceDirEntity{traceHandle, routine, dirScope, dirHandler, " %s", unit};
constinit TracePoint traceSmCreated{traceHandle, routine, dirClass, "", " create statusSm", unit};
constinit TracePoint traceSmDeleted{traceHandle, routine, dirClass, "", " delete statusSm", unit};

// Why the write of a group or member failed, by the status of its Corvex group. Any other status
// does not change the result of the write.
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

// The action-profile group or member that a Corvex group stands for.
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

// Sets a flag while it lives.
class Settling {
 public:
  explicit Settling(bool& flag) noexcept : flag_{flag} { flag_ = true; }
  ~Settling() { flag_ = false; }
  Settling(const Settling&) = delete;
  Settling& operator=(const Settling&) = delete;

 private:
  bool& flag_;
};

// The handle of the entry that wrote a row, if there is such a row.
template <class Table>
[[nodiscard]] std::optional<EntryHandle> entryHandle(const Korm::Ptr<Table>& table,
                                                     P4Runtime::MemberOrGroupId id) {
  const auto* const row = findRow(table, id);
  return row == nullptr ? std::nullopt : std::optional{row->entryHandle};
}

}  // namespace

OstraStatusSm::OstraStatusSm(Inputs inputs)
    : inputs_{std::move(inputs)},
      flowStatsReactor_{*this, inputs_.cxHwStatus->flowStatsNotifiees()},
      groupStatsReactor_{*this, inputs_.cxHwStatus->groupStatsNotifiees()} {
  // This comes before the first report, which may lead to changes of the status.
  handleCxHwStatus();
  handleInitialized();
}

void OstraStatusSm::onNotificationActive(bool active) {
  const bool mayHaveMissed = active && !cxHwStatusActive();
  flowStatsReactor_.hasNotificationActiveIs(active);
  groupStatsReactor_.hasNotificationActiveIs(active);
  for (auto& entry : flowStats_) {
    entry.value.hasNotificationActiveIs(active);
  }
  for (auto& entry : groupStats_) {
    entry.value.hasNotificationActiveIs(active);
  }
  if (mayHaveMissed) {
    handleCxHwStatus();
  }
}

void OstraStatusSm::handleInitialized() {
  traceInitialized();
  initialized_ = true;
  handleFlowHwStatus();
  handleGroupHwStatus();
}

void OstraStatusSm::handleCxHwStatus() {
  const OpenFlowTable::HwStatus& status = *inputs_.cxHwStatus;
  for (const auto& entry : flowStats_) {
    if (status.flowStats(entry.key) == nullptr) {
      flowStatsDel(entry.key);
    }
  }
  for (const auto& entry : groupStats_) {
    if (status.groupStats(entry.key) == nullptr) {
      groupStatsDel(entry.key);
    }
  }
  for (const auto& entry : status.flowStats()) {
    flowStatsIs(entry.value);
  }
  for (const auto& entry : status.groupStats()) {
    groupStatsIs(entry.value);
  }
}

void OstraStatusSm::handleFlowHwStatus(const Korm::Name& flowName) {
  reportFlow(flowName, inputs_.cxHwStatus->flowStats(flowName));
}

void OstraStatusSm::handleFlowHwStatus() {
  traceAllFlows();
  for (const auto& entry : inputs_.cxHwStatus->flowStats()) {
    reportFlow(entry.key, &entry.value);
  }
}

void OstraStatusSm::reportFlow(const Korm::Name& name, const FlowStats* stats) {
  const EntryHandle handle{flowIdFromName(name)};
  std::optional<ErrorCode> result = ErrorCode::success_;
  if (stats == nullptr) {
    traceFlowDeleted(name);
  } else {
    traceFlowChanged(name, stats->status());
    result = flowResult(stats->status());
  }
  if (result) {
    reportResult(handle, *result);
  }
}

void OstraStatusSm::reportResult(EntryHandle handle, ErrorCode code) {
  const auto& info = inputs_.ostraStatusInfo;
  if (info && info->dependentHandleToVrfMap().find(handle) != nullptr) {
    reportDependentResult(handle, code);
  } else if (inputs_.batchStatus) {
    inputs_.batchStatus->markTransaction(handle, code, "");
  }
}

void OstraStatusSm::reportDependentResult(EntryHandle handle, ErrorCode code) {
  traceDependent(handle, inputs_.ostraStatusInfo->dependentHandleToVrfMap(handle));
  if (inputs_.batchStatus) {
    if (const auto root = inputs_.batchStatus->aggregatorStatus().rootStatusEntry(handle)) {
      const auto status = Korm::makePtr<P4Runtime::BatchStatusEntry>(handle);
      status->errorCodeIs(code);
      root->dependentEntryStatusIs(status);
    }
  }
  inputs_.ostraStatusInfo->dependentHandleToVrfMapDel(handle);
}

void OstraStatusSm::handleStats(const FlowStats& stats) {
  const auto self = Korm::keptAlive(*this);
  reportFlow(stats.name(), &stats);
}

void OstraStatusSm::handleStats(const GroupStats& stats) {
  const auto self = Korm::keptAlive(*this);
  reportGroup(stats.id(), &stats);
}

void OstraStatusSm::handleFlowStats(const Korm::Name& name) {
  const auto self = Korm::keptAlive(*this);
  const Korm::HashedName hashed{name};
  reportFlow(name, inputs_.cxHwStatus->flowStats(hashed));
  // Looked up again, because the service may have changed the status in reaction.
  if (const auto* const stats = inputs_.cxHwStatus->flowStats(hashed)) {
    flowStatsIs(*stats, hashed.hash());
  } else {
    flowStats_.erase(name, hashed.hash());
  }
}

void OstraStatusSm::flowStatsIs(const FlowStats& flowStats) {
  flowStatsIs(flowStats, decltype(flowStats_)::hash(flowStats.name()));
}

void OstraStatusSm::flowStatsIs(const FlowStats& flowStats, std::uint32_t hash) {
  const Korm::Name& name = flowStats.name();
  const auto [reactor, created] = flowStats_.tryEmplaceHashed(hash, name, *this, flowStats);
  if (!created && !reactor.value.follows(flowStats)) {
    flowStats_.erase(name, hash);
    flowStats_.tryEmplaceHashed(hash, name, *this, flowStats);
  }
}

void OstraStatusSm::flowStatsDel(const Korm::Name& flowName) { flowStats_.erase(flowName); }

void OstraStatusSm::flowStatsDelAll() { flowStats_.clear(); }

void OstraStatusSm::handleGroupHwStatus(GroupId groupId) {
  reportGroup(groupId, inputs_.cxHwStatus->groupStats(groupId));
}

void OstraStatusSm::handleGroupHwStatus() {
  traceAllGroups();
  for (const auto& entry : inputs_.cxHwStatus->groupStats()) {
    reportGroup(entry.key, &entry.value);
  }
}

void OstraStatusSm::reportGroup(GroupId id, const GroupStats* stats) {
  traceGroup(id);
  const Profile profile = profileOf(id);
  const auto handle = profile.isMember ? entryHandle(inputs_.p4rtEcmpMemberTable, profile.id)
                                       : entryHandle(inputs_.p4rtEcmpGroupTable, profile.id);
  if (!handle) {
    (profile.isMember ? traceMemberUnknown : traceGroupUnknown)(id);
    return;
  }
  if (stats == nullptr) {
    traceGroupDeleted(id);
    return;
  }
  // There is no open entry if the write has been answered already.
  const auto entry = inputs_.batchStatus ? inputs_.batchStatus->batchStatusEntry(*handle) : nullptr;
  const GroupStatus status = stats->status();
  if (entry) {
    reportGroupFailure(*entry, profile, status);
  }
  traceGroupChanged(id, status);
}

void OstraStatusSm::handleGroupStats(const GroupId& id) {
  const auto self = Korm::keptAlive(*this);
  handleGroupHwStatus(id);
  if (const auto* const group = inputs_.cxHwStatus->groupStats(id)) {
    groupStatsIs(*group);
  } else {
    groupStatsDel(id);
  }
}

void OstraStatusSm::groupStatsIs(const GroupStats& groupStats) {
  const GroupId id = groupStats.id();
  const auto [reactor, created] = groupStats_.tryEmplace(id, *this, groupStats);
  if (!created && !reactor.value.follows(groupStats)) {
    groupStats_.erase(id);
    groupStats_.tryEmplace(id, *this, groupStats);
  }
}

void OstraStatusSm::groupStatsDel(GroupId groupId) { groupStats_.erase(groupId); }

void OstraStatusSm::groupStatsDelAll() { groupStats_.clear(); }

OstraStatusDirSm::OstraStatusDirSm(Inputs inputs)
    : inputs_{std::move(inputs)}, directoryReactor_{*this, inputs_.cxStatusDir->notifiees()} {
  directoryReactor_.hasNotificationActiveIs(false);
  handleInitialized();
}

OstraStatusDirSm::~OstraStatusDirSm() { p4RtCxStatusSmDel(); }

void OstraStatusDirSm::onNotificationActive(bool active) {
  directoryReactor_.hasNotificationActiveIs(active);
  if (p4RtCxStatusSm_) {
    p4RtCxStatusSm_->hasNotificationActiveIs(active);
  }
}

void OstraStatusDirSm::handleInitialized() {
  traceDirInitialized();
  initialized_ = true;
  handleStatusDir();
}

void OstraStatusDirSm::handleStatusDir(const Korm::Name& name) {
  traceDirEntity(name);
  if (name != p4rtName || settling_) {
    return;
  }
  const auto self = Korm::keptAlive(*this);
  const Settling settling{settling_};
  const auto entity = [this] {
    return inputs_.cxStatusDir->entityPtr<const OpenFlowTable::HwStatus>(p4rtName);
  };
  // The service may react to the reports of a new state machine by replacing or removing the
  // entity.
  Korm::Ptr<const OpenFlowTable::HwStatus> status;
  do {
    status = entity();
    if (status) {
      traceSmCreated();
      p4RtCxStatusSmIs(status, inputs_.batchStatus, inputs_.ostraStatusInfo,
                       inputs_.p4rtEcmpGroupTable, inputs_.p4rtEcmpMemberTable);
    } else if (p4RtCxStatusSm_) {
      traceSmDeleted();
      p4RtCxStatusSmDel();
    }
  } while (entity() != status);
}

void OstraStatusDirSm::handleStatusDir() {
  traceWholeDir();
  const auto self = Korm::keptAlive(*this);
  const auto& entities = inputs_.cxStatusDir->entities();
  for (auto entity = entities.begin(); entity != entities.end();) {
    const Korm::Name name = entity->first;  // the entity may be removed in reaction to a report
    handleStatusDir(name);
    entity = entities.upper_bound(name);
  }
}

Korm::Ptr<OstraStatusSm> OstraStatusDirSm::p4RtCxStatusSmIs(
    const Korm::Ptr<const OpenFlowTable::HwStatus>& hwStatus,
    const Korm::Ptr<P4Runtime::BatchStatus>& batchStatus,
    const Korm::Ptr<OstraStatusInfo>& ostraStatusInfo,
    const Korm::Ptr<P4RuntimeRouting::EcmpGroup>& p4rtEcmpGroupTable,
    const Korm::Ptr<P4RuntimeRouting::EcmpMember>& p4rtEcmpMemberTable) {
  OstraStatusSm::Inputs inputs{hwStatus, batchStatus, ostraStatusInfo, p4rtEcmpGroupTable,
                               p4rtEcmpMemberTable};
  if (!p4RtCxStatusSm_ || p4RtCxStatusSm_->inputs() != inputs) {
    auto fresh = Korm::makeActive<OstraStatusSm>(std::move(inputs));
    p4RtCxStatusSmDel();
    p4RtCxStatusSm_ = std::move(fresh);
  }
  return p4RtCxStatusSm_;
}

void OstraStatusDirSm::p4RtCxStatusSmDel() {
  // It is switched off because one of its own reports may still hold a reference to it.
  if (const auto removed = std::exchange(p4RtCxStatusSm_, nullptr)) {
    removed->hasNotificationActiveIs(false);
  }
}

}  // namespace Ostra
