#include "Ostra/OstraSm.h"

#include "Ostra/FlowUtil.h"
#include "Ostra/GroupNumbering.h"
#include "Ostra/MatchTranslation.h"
#include "Ostra/OstraStatus.h"
#include "Ostra/Trace.h"
#include "platform/Korm/Clock.h"

namespace Ostra {
namespace {

using OpenFlowTable::Action;

constexpr std::string_view scope = "OstraSm::";
constexpr std::string_view flowConfig = "handleFlowConfigImpl";
constexpr std::string_view vrfChange = "handleVrfChange";
constexpr int routine = TraceLevel::routine;
constexpr int anomaly = TraceLevel::anomaly;

constinit Brisklog::TracePoint traceInitialized{
    traceHandle, routine, scope, "handleInitialized", "", "Ostra/OstraSm", 685};
constinit Brisklog::TracePoint traceNoConfig{traceHandle, anomaly, scope, flowConfig,
                                             " no Corvex configuration for flowKey %s"};
constinit Brisklog::TracePoint traceInsert{traceHandle, routine, scope, flowConfig,
                                           " insert flow:%s"};
constinit Brisklog::TracePoint traceMatchIntf{traceHandle, routine, scope, flowConfig,
                                              " matchIntf:%s"};
constinit Brisklog::TracePoint traceMatchEgressIntf{traceHandle, routine, scope, flowConfig,
                                                    " match egressIntf:%s"};
constinit Brisklog::TracePoint traceOutput{traceHandle, routine, scope, flowConfig,
                                           " P4 egressIntf:%s intfId:%s"};
constinit Brisklog::TracePoint traceVlan{traceHandle, routine, scope, flowConfig,
                                         " P4 VlanId:%s cx vlanId:%s"};
constinit Brisklog::TracePoint traceModified{traceHandle, routine, scope, flowConfig,
                                             " modified  flow:%s EntryId: %s"};
constinit Brisklog::TracePoint traceInserted{traceHandle, routine, scope, flowConfig,
                                             " inserted  flow:%s EntryId: %s"};
constinit Brisklog::TracePoint traceNotMapped{traceHandle, anomaly, scope, flowConfig,
                                              " flowKey is not mapped to entryHandle %s"};
constinit Brisklog::TracePoint traceDelete{traceHandle, routine, scope, flowConfig,
                                           " deleting flow:%s"};
constinit Brisklog::TracePoint traceNotPresent{traceHandle, anomaly, scope, flowConfig,
                                               " flowName%s is not present in CX"};
constinit Brisklog::TracePoint traceDelVrf{traceHandle, routine, scope, vrfChange,
                                           " del vrf %s refCount %s"};
constinit Brisklog::TracePoint traceAddVrf{traceHandle, routine, scope, vrfChange,
                                           " add vrf %s refCount %s"};
constinit Brisklog::TracePoint traceRootStatus{traceHandle, routine, scope, vrfChange,
                                               " adding rootStatus, entryVrf:%s entryHandle:%s"};
constinit Brisklog::TracePoint traceNoRoot{traceHandle, anomaly, scope, vrfChange,
                                           " no rootStatus for entryHandle:%s"};

// Copies the plain actions that are present, from `first` up to, not including, `last`.
template <Action first, Action last>
void copyActions(const OpenFlowTable::Actions& given, OpenFlowTable::Actions& actions) {
  OpenFlowTable::forEachAction([&](auto action) {
    if constexpr (action >= first && action < last &&
                  OpenFlowTable::actionInfo(action).rule == OpenFlowTable::ActionRule::copied_) {
      actions.take<action>(given);
    }
  });
}

const Korm::String ingressPortName = "ingress port-id";
const Korm::String egressPortName = "egress port-id";

}  // namespace

OstraSm::OstraSm(Korm::Ptr<OpenFlowTable::CorvexHwConfig> cxHwConfig,
                 Korm::Ptr<CorvexConfig::Config> cxConfig, Korm::Ptr<const Korm::Dir> cxHwStatusDir,
                 const Korm::Ptr<OstraConfig>& ostraConfigTable,
                 Korm::Ptr<P4Runtime::VrfIdCollection> vrfIdCollection,
                 Korm::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus,
                 Korm::Ptr<P4Runtime::ValidationHelper> validationHelper,
                 Korm::Ptr<OstraStatusInfo> ostraStatusInfo,
                 Korm::Ptr<P4Runtime::BatchStatus> batchStatus,
                 Korm::Ptr<P4Runtime::Telemetry> telemetry)
    : cxHwConfig_{std::move(cxHwConfig)},
      cxConfig_{std::move(cxConfig)},
      cxHwStatusDir_{std::move(cxHwStatusDir)},
      vrfIdCollection_{std::move(vrfIdCollection)},
      p4RtPortMappingStatus_{std::move(p4RtPortMappingStatus)},
      validationHelper_{std::move(validationHelper)},
      ostraStatusInfo_{std::move(ostraStatusInfo)},
      batchStatus_{std::move(batchStatus)},
      telemetry_{std::move(telemetry)} {
  if (ostraConfigTable) {
    reactor_.emplace(*this, ostraConfigTable);
  }
  handleInitialized();
}

OstraSm::~OstraSm() {
  reactor_.reset();
  index_.clear();
}

void OstraSm::onNotificationActive(bool active) {
  if (reactor_) {
    reactor_->notifiee.hasNotificationActiveIs(active);
  }
}

// Calls handle(entry) for each entry; a corrupt one is reported to the table, and the walk goes on.
template <class Handle>
void OstraSm::forEachEntry(Handle handle) const {
  if (!reactor_) {
    return;
  }
  OstraConfig& table = *reactor_->table;
  Vasta::Hint hint;
  for (;;) {
    const OstraConfigEntry* entry = nullptr;
    try {
      entry = table.next(hint);
    } catch (const Vasta::Corruption& corruption) {
      table.reportCorruption(corruption.what());
      continue;
    }
    if (entry == nullptr) {
      return;
    }
    handle(*entry);
  }
}

void OstraSm::handleInitialized() {
  traceInitialized();
  initializedIs(true);
  if (cxConfig_ && !cxConfig_->enabled()) {
    cxConfig_->enabledIs(true);
  }
  deleteStaleFlows();
  forEachEntry([this](const OstraConfigEntry& entry) {
    const OstraKey key = entry.key();
    handleFlowConfig(key);
  });
}

// Flows of other tables are stale to this one too: all fifteen state machines keep the rule that what the
// table does not hold goes.
void OstraSm::deleteStaleFlows() {
  if (!cxHwConfig_) {
    return;
  }
  struct Nothing {};
  Korm::HashMap<std::uint64_t, Nothing> handles;
  forEachEntry(
      [&handles](const OstraConfigEntry& entry) { handles.tryEmplace(entry.entryHandle); });
  for (const auto& flow : cxHwConfig_->flowEntries()) {
    if (handles.find(flowIdFromName(flow.key)) == nullptr) {
      cxHwConfig_->flowEntryDel(flow.key);
    }
  }
}

void OstraSm::handleFlowConfig(const OstraKey& key) {
  const Korm::Moment moment;
  try {
    handleFlowConfigImpl(key, key.hash(0));
  } catch (const P4Runtime::P4RuntimeExceptionBase& error) {
    error.report();
  }
}

void OstraSm::handleFlowConfigImpl(const OstraKey& key, std::uint32_t hash) {
  if (!cxHwConfig_) {
    traceNoConfig(key);
    return;
  }
  const OstraConfigEntry* stored = nullptr;
  if (reactor_) {
    try {
      stored = reactor_->table->entry(key, hash);
    } catch (const Vasta::Corruption& corruption) {
      // What the entry says cannot be known, so the flow stays as it is.
      reactor_->table->reportCorruption(corruption.what());
      return;
    }
  }
  if (stored == nullptr) {
    deleteFlow(key, hash);
    return;
  }
  const OstraConfigEntry entry = *stored;  // reactors to what follows may write the row again
  insertFlow(key, hash, entry);
}

void OstraSm::insertFlow(const OstraKey& key, std::uint32_t hash, const OstraConfigEntry& entry) {
  const P4Runtime::EntryHandle handle = entry.entryHandle;
  const FlowName builtName{handle};
  const Korm::HashedName name{builtName.text()};
  traceInsert(name.text());
  OpenFlowTable::Match match;
  buildMatch(key, handle, match);
  OpenFlowTable::Actions actions;
  buildActions(key, hash, entry, actions);
  validateFlowAction(actions, actions.actionSet(), entry);

  const auto tableType = static_cast<OpenFlowTable::TableType>(key.tableType());
  const OpenFlowTable::PriorityGroupType priorityGroup = key.priorityGroupType();
  const bool existed = cxHwConfig_->flowEntry(name) != nullptr;
  index_.handleIs(key, hash, handle);
  maybeUpdateFlowMatch(tableType, priorityGroup, match);
  const OpenFlowTable::Priority priority{key.priority()};
  OpenFlowTable::FlowEntry& flow = cxHwConfig_->flowEntryIs(
      name, match, actions, priority, priorityGroup, tableType, 0, 0.0, 0.0, false, true);
  flow.entryIdIs(entry.entryId);
  const double now =
      telemetry_->newTransactionTimestamp(handle, P4Runtime::TelemetryTimestampType::configured_);
  if (existed) {
    flow.changeCountIs(now);
  }
  (existed ? traceModified : traceInserted)(name.text(), entry.entryId);
}

void OstraSm::buildMatch(const OstraKey& key, P4Runtime::EntryHandle handle,
                         OpenFlowTable::Match& match) const {
  if (const auto port = key.ingressPort(); port.constrained()) {
    validatePortAndMask(handle, port.value, port.mask, ingressPortName);
    const Interface::IntfId intf = p4RtPortMappingStatus_->p4PortIdToIntfId(port.value);
    traceMatchIntf(intf.shortName());
    match.inIntfIs(intf, true);
  }
  if (const auto port = key.egressPort(); port.constrained()) {
    validatePortAndMask(handle, port.value, port.mask, egressPortName);
    const Interface::IntfId intf = p4RtPortMappingStatus_->p4PortIdToIntfId(port.value);
    traceMatchEgressIntf(intf.shortName());
    match.egressIntfIs(intf, true);
  }
  validateFlowKey(key, handle);
  copyMatchFields(key, match);
}

// The order decides what a failure leaves behind: one before the VRF is booked leaves nothing. The plain
// actions whose lines stand before the output action are copied before that, the others after it.
void OstraSm::buildActions(const OstraKey& key, std::uint32_t hash, const OstraConfigEntry& entry,
                           OpenFlowTable::Actions& actions) {
  copyActions<Action{}, Action::outputIntf_>(entry.actions, actions);
  if (entry.outputGiven()) {
    validationHelper_->validatePortId(entry.entryHandle, entry.outputPort, egressPortName);
    const Interface::IntfId intf = p4RtPortMappingStatus_->p4PortIdToIntfId(entry.outputPort);
    traceOutput(entry.outputPort, intf);
    actions.outputIntfIs(intf, true);
  }
  if (entry.vrfGiven) {
    actions.vrfIs(entry.vrfId, true);
  }
  if (entry.vlanGiven) {
    actions.vlanIdIs(Bridging::VlanIdOrNone{entry.vlanId}, true);
  }
  traceVlan(entry.vlanId, actions.vlanId());
  handleVrfChange(key, hash, entry.vrfGiven, entry.vrfId, entry.entryHandle);
  copyActions<Action::outputIntf_, Action::count_>(entry.actions, actions);
  if (entry.memberGiven) {
    actions.groupIs(memberGroupId(entry.memberId), true);
  }
  if (entry.groupGiven) {
    actions.groupIs(ecmpGroupId(entry.groupId), true);
  }
}

void OstraSm::deleteFlow(const OstraKey& key, std::uint32_t hash) {
  const std::optional<std::uint64_t> mapped = index_.handle(key, hash);
  if (!mapped) {
    traceNotMapped(key);
    batchStatus_->markTransactionSucceeded(P4Runtime::EntryHandle{});
    return;
  }
  const P4Runtime::EntryHandle handle{*mapped};
  const FlowName builtName{handle};
  const Korm::HashedName name{builtName.text()};
  if (cxHwConfig_->flowEntry(name) == nullptr) {
    // The key stays mapped: whoever removed the flow behind our back did not release its VRF.
    traceNotPresent(name.text());
    batchStatus_->markTransactionSucceeded(handle);
    return;
  }
  traceDelete(name.text());
  cxHwConfig_->flowEntryDel(name);
  telemetry_->newTransactionTimestamp(handle, P4Runtime::TelemetryTimestampType::configured_);
  handleVrfChange(key, hash, false, 0, handle);
  index_.handleDel(key, hash);
}

void OstraSm::handleVrfChange(const OstraKey& key, std::uint32_t hash, bool newValid,
                              Vrf::VrfIdMap::VrfId newVrf, P4Runtime::EntryHandle handle) {
  const std::optional<Vrf::VrfIdMap::VrfId> oldVrf = index_.vrf(key, hash);
  if (!oldVrf && !newValid) {
    return;
  }
  if (oldVrf && newValid && newVrf == *oldVrf) {
    return;
  }
  Vrf::VrfIdMap::VrfId statusVrf = Vrf::VrfIdMap::none;
  if (oldVrf && releaseVrf(key, hash, *oldVrf, handle)) {
    statusVrf = *oldVrf;
  }
  if (newValid && takeVrf(key, hash, newVrf, handle)) {
    statusVrf = newVrf;
  }
  if (statusVrf != Vrf::VrfIdMap::none) {
    traceRootStatus(statusVrf, handle);
    ostraStatusInfo_->dependentHandleToVrfMapIs(handle, statusVrf);
  }
}

bool OstraSm::releaseVrf(const OstraKey& key, std::uint32_t hash, Vrf::VrfIdMap::VrfId vrf,
                         P4Runtime::EntryHandle handle) {
  const bool last =
      vrfIdCollection_->vrfIdRefCount(vrf) == 1U && !vrfIdCollection_->vrfDeletorRootHandle(vrf);
  if (last) {
    vrfIdCollection_->vrfDeletorRootHandleIs(vrf, handle);
    markDependent(handle);
  }
  const std::uint32_t count = vrfIdCollection_->vrfIdRefCountDec(vrf, 1);
  index_.vrfDel(key, hash);
  traceDelVrf(vrf, count);
  return last;
}

bool OstraSm::takeVrf(const OstraKey& key, std::uint32_t hash, Vrf::VrfIdMap::VrfId vrf,
                      P4Runtime::EntryHandle handle) {
  const bool first = vrfIdCollection_->vrfIdRefCount(vrf).value_or(0) == 0 &&
                     !vrfIdCollection_->vrfCreatorRootHandle(vrf);
  if (first) {
    vrfIdCollection_->vrfCreatorRootHandleIs(vrf, handle);
    markDependent(handle);
  }
  index_.vrfIs(key, hash, vrf);
  const std::uint32_t count = vrfIdCollection_->vrfIdRefCountInc(vrf, 1);
  traceAddVrf(vrf, count);
  return first;
}

void OstraSm::markDependent(P4Runtime::EntryHandle handle) {
  if (const auto root = batchStatus_->aggregatorStatus().rootStatusEntry(handle)) {
    root->dependentEntryHandleIs(handle, true);
  } else {
    traceNoRoot(handle);  // no batch waits for this entry, so there is no result to hold back
  }
}

}  // namespace Ostra
