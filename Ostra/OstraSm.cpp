#include "Ostra/OstraSm.h"

#include <algorithm>
#include <array>

#include "Ostra/FlowUtil.h"
#include "Ostra/GroupNumbering.h"
#include "Ostra/Trace.h"
#include "Ostra/private/FlowIndex.h"
#include "Ostra/private/MatchTranslation.h"
#include "Ostra/private/StepTrace.h"
#include "Ostra/private/TableRows.h"
#include "Ostra/private/WriteWatch.h"
#include "platform/Korm/Clock.h"
#include "platform/Korm/HashSet.h"

namespace Ostra {
namespace {

using OpenFlowTable::Action;

using FlowWatch = WriteWatch<Korm::Name>;

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
constinit StepTrace traceMatchIntf{traceHandle, routine, scope, flowConfig, " matchIntf:%s"};
constinit StepTrace traceMatchEgressIntf{traceHandle, routine, scope, flowConfig,
                                         " match egressIntf:%s"};
constinit StepTrace traceOutput{traceHandle, routine, scope, flowConfig,
                                " P4 egressIntf:%s intfId:%s"};
constinit StepTrace traceVlan{traceHandle, routine, scope, flowConfig,
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

OstraSm::OstraSm(Inputs inputs)
    : inputs_{std::move(inputs)}, index_{std::make_unique<FlowIndex>()} {
  if (inputs_.ostraConfigTable) {
    reactor_.emplace(*this, inputs_.ostraConfigTable->entryNotifiees());
  }
  handleInitialized();
}

OstraSm::~OstraSm() = default;

void OstraSm::onNotificationActive(bool active) {
  if (reactor_) {
    reactor_->hasNotificationActiveIs(active);
  }
}

Vrf::VrfIdMap::VrfId OstraSm::vrfId(const OstraKey& key) const noexcept {
  return index_->vrf(HashedKey{key}).value_or(Vrf::VrfIdMap::none);
}
void OstraSm::vrfIdIs(const OstraKey& key, Vrf::VrfIdMap::VrfId vrf) {
  index_->vrfIs(HashedKey{key}, vrf);
}
Vrf::VrfIdMap::VrfId OstraSm::vrfIdDel(const OstraKey& key) noexcept {
  return index_->vrfDel(HashedKey{key}).value_or(Vrf::VrfIdMap::none);
}
void OstraSm::vrfIdDelAll() noexcept { index_->vrfDelAll(); }

std::optional<std::uint64_t> OstraSm::flowKeyToEntryHandle(const HashedKey& key) const noexcept {
  return index_->handle(key);
}
void OstraSm::flowKeyToEntryHandleIs(const OstraKey& key, std::uint64_t handle) {
  index_->handleIs(HashedKey{key}, handle);
}
std::uint64_t OstraSm::flowKeyToEntryHandleDel(const OstraKey& key) noexcept {
  return index_->handleDel(HashedKey{key}).value_or(0);
}
void OstraSm::flowKeyToEntryHandleDelAll() noexcept { index_->handleDelAll(); }

std::size_t OstraSm::indexedKeys() const noexcept { return index_->size(); }

void OstraSm::forEachIndexed(const VisitIndexed& visit) const { index_->forEach(visit); }

void OstraSm::verify() const { index_->verify(); }

void OstraSm::handleInitialized() {
  traceInitialized();
  initializedIs(true);
  if (inputs_.cxConfig && !inputs_.cxConfig->enabled()) {
    inputs_.cxConfig->enabledIs(true);
  }
  deleteStaleFlows();
  forEachRow(inputs_.ostraConfigTable, AtCorruption::goOn_, [this](const OstraConfigEntry& entry) {
    const OstraKey key = entry.key();
    handleFlowConfig(key);
  });
}

// A flow of another table counts as stale too: each of the fifteen state machines deletes all flows
// that its own table does not have.
void OstraSm::deleteStaleFlows() {
  if (!inputs_.cxHwConfig) {
    return;
  }
  Korm::HashSet<std::uint64_t> handles;
  forEachRow(inputs_.ostraConfigTable, AtCorruption::goOn_,
             [&handles](const OstraConfigEntry& entry) { handles.insert(entry.entryHandle); });
  for (const auto& flow : inputs_.cxHwConfig->flowEntries()) {
    if (!handles.contains(flowIdFromName(flow.key))) {
      inputs_.cxHwConfig->flowEntryDel(flow.key);
    }
  }
}

void OstraSm::handleFlowConfig(const OstraKey& key) {
  const auto self = Korm::keptAlive(*this);
  const Korm::Moment moment;
  try {
    handleFlowConfigImpl(HashedKey{key});
  } catch (const P4Runtime::P4RuntimeExceptionBase& error) {
    error.report();
  }
}

void OstraSm::prefetch(std::span<const OstraKey* const> keys) const noexcept {
  if (!inputs_.cxHwConfig) {
    return;
  }
  keys = keys.first(std::min(keys.size(), prefetchable));
  std::array<std::uint32_t, prefetchable> hashes;
  std::transform(keys.begin(), keys.end(), hashes.begin(),
                 [](const OstraKey* key) { return key->hash(0); });
  index_->prefetch(std::span{hashes}.first(keys.size()));
  std::size_t known = 0;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (const auto handle = index_->handle({*keys[i], hashes[i]})) {
      hashes[known++] = Korm::HashedName{FlowName{*handle}.text()}.hash();
    }
  }
  inputs_.cxHwConfig->flowEntries().prefetch(std::span{hashes}.first(known));
}

void OstraSm::handleFlowConfigImpl(const HashedKey& key) {
  if (!inputs_.cxHwConfig) {
    traceNoConfig(key.key);
    return;
  }
  const OstraConfigEntry* stored = nullptr;
  if (const auto& table = inputs_.ostraConfigTable) {
    const auto read = reportingCorruption(*table, [&] { return table->entry(key.key, key.hash); });
    if (!read) {
      return;  // the entry cannot be read, so its flow stays as it is
    }
    stored = *read;
  }
  if (stored == nullptr) {
    deleteFlow(key);
  } else {
    const OstraConfigEntry entry = *stored;  // a reactor to the write may write the row again
    insertFlow(key, entry);
  }
}

void OstraSm::insertFlow(const HashedKey& key, const OstraConfigEntry& entry) {
  const FlowName builtName{entry.entryHandle};
  const Korm::HashedName name{builtName.text()};
  traceInsert(name.text());

  class LiveEffects final : public Effects {
   public:
    LiveEffects(OstraSm& sm, const HashedKey& key, const OstraConfigEntry& entry)
        : sm_{sm}, key_{key}, entry_{entry} {}
    void bookVrf() override {
      sm_.handleVrfChange(key_, entry_.vrfGiven, entry_.vrfId, entry_.entryHandle);
    }
    void mapKey() override { sm_.index_->handleIs(key_, entry_.entryHandle); }

   private:
    OstraSm& sm_;
    const HashedKey& key_;
    const OstraConfigEntry& entry_;
  };
  LiveEffects effects{*this, key, entry};
  TranslatedFlow translated;
  try {
    translate(entry, translated, effects);
  } catch (...) {
    index_->refusedIs(key, true);
    throw;
  }
  index_->refusedIs(key, false);
  writeFlow(name, translated, entry);
}

void OstraSm::writeFlow(const Korm::HashedName& name, const TranslatedFlow& translated,
                        const OstraConfigEntry& entry) {
  const bool existed = inputs_.cxHwConfig->flowEntry(name) != nullptr;
  const FlowWatch watch{inputs_.cxHwConfig->flowEntryNotifiees(), name.text()};
  OpenFlowTable::FlowEntry& flow = inputs_.cxHwConfig->flowEntryIs(
      name, translated.match, translated.actions, OpenFlowTable::Priority{translated.priority},
      translated.priorityGroupType, translated.tableType, 0, 0.0, 0.0, false, true);
  if (!watch.overtaken()) {
    flow.entryIdIs(entry.entryId);
  }
  inputs_.telemetry->newTransactionTimestamp(entry.entryHandle,
                                             P4Runtime::TelemetryTimestampType::configured_);
  if (existed && !watch.overtaken()) {
    flow.changeCountIs(Korm::currentTime());
  }
  (existed ? traceModified : traceInserted)(name.text(), entry.entryId);
}

// The order decides what a failure leaves behind: a failure before the VRF is booked leaves
// nothing, and a failure before the key is mapped leaves the VRF booked.
void OstraSm::translate(const OstraConfigEntry& entry, TranslatedFlow& flow,
                        Effects& effects) const {
  flow.tableType = static_cast<OpenFlowTable::TableType>(entry.flowKey.tableType());
  flow.priorityGroupType = entry.flowKey.priorityGroupType();
  flow.priority = entry.flowKey.priority();
  buildMatch(entry, flow);
  buildActions(entry, flow, effects);
  flow.step = FlowStep::group_;
  validateFlowAction(flow.actions, flow.actions.actionSet(), entry);
  flow.step = FlowStep::mapKey_;
  effects.mapKey();
  maybeUpdateFlowMatch(flow.tableType, flow.priorityGroupType, flow.match);
  flow.step = FlowStep::priority_;
  static_cast<void>(OpenFlowTable::Priority{flow.priority});
  flow.step = FlowStep::write_;
}

void OstraSm::buildMatch(const OstraConfigEntry& entry, TranslatedFlow& flow) const {
  const OstraKey& key = entry.flowKey;
  const P4Runtime::EntryHandle handle = entry.entryHandle;
  OpenFlowTable::Match& match = flow.match;
  flow.step = FlowStep::ports_;
  if (const auto port = key.ingressPort(); port.constrained()) {
    validatePortAndMask(handle, port.value, port.mask, ingressPortName);
    const Interface::IntfId intf = inputs_.p4RtPortMappingStatus->p4PortIdToIntfId(port.value);
    traceMatchIntf(intf.shortName());
    match.inIntfIs(intf, true);
  }
  if (const auto port = key.egressPort(); port.constrained()) {
    validatePortAndMask(handle, port.value, port.mask, egressPortName);
    const Interface::IntfId intf = inputs_.p4RtPortMappingStatus->p4PortIdToIntfId(port.value);
    traceMatchEgressIntf(intf.shortName());
    match.egressIntfIs(intf, true);
  }
  flow.step = FlowStep::matchFields_;
  validateFlowKey(key, handle);
  flow.step = FlowStep::matchValues_;
  copyMatchFields(key, match);
}

// The plain actions on the lines before the output action are copied before the VRF is booked, and
// the others after it.
void OstraSm::buildActions(const OstraConfigEntry& entry, TranslatedFlow& flow,
                           Effects& effects) const {
  OpenFlowTable::Actions& actions = flow.actions;
  flow.step = FlowStep::actions_;
  copyActions<Action{}, Action::outputIntf_>(entry.actions, actions);
  flow.step = FlowStep::outputPort_;
  if (entry.outputGiven()) {
    inputs_.validationHelper->validatePortId(entry.entryHandle, entry.outputPort, egressPortName);
    const Interface::IntfId intf =
        inputs_.p4RtPortMappingStatus->p4PortIdToIntfId(entry.outputPort);
    traceOutput(entry.outputPort, intf);
    actions.outputIntfIs(intf, true);
  }
  flow.step = FlowStep::vlan_;
  if (entry.vrfGiven) {
    actions.vrfIs(entry.vrfId, true);
  }
  if (entry.vlanGiven) {
    actions.vlanIdIs(Bridging::VlanIdOrNone{entry.vlanId}, true);
  }
  traceVlan(entry.vlanId, actions.vlanId());
  flow.step = FlowStep::bookVrf_;
  effects.bookVrf();
  flow.step = FlowStep::moreActions_;
  copyActions<Action::outputIntf_, Action::count_>(entry.actions, actions);
  if (entry.memberGiven) {
    actions.groupIs(memberGroupId(entry.memberId), true);
  }
  if (entry.groupGiven) {
    actions.groupIs(ecmpGroupId(entry.groupId), true);
  }
}

void OstraSm::deleteFlow(const HashedKey& key) {
  index_->refusedIs(key, false);
  const std::optional<std::uint64_t> mapped = index_->handle(key);
  if (!mapped) {
    traceNotMapped(key.key);
    inputs_.batchStatus->markTransactionSucceeded(P4Runtime::EntryHandle{});
    return;
  }
  const P4Runtime::EntryHandle handle{*mapped};
  const FlowName builtName{handle};
  const Korm::HashedName name{builtName.text()};
  if (inputs_.cxHwConfig->flowEntry(name) == nullptr) {
    // Somebody else removed the flow and did not release its VRF, so the key stays mapped.
    traceNotPresent(name.text());
    inputs_.batchStatus->markTransactionSucceeded(handle);
    return;
  }
  traceDelete(name.text());
  const FlowWatch watch{inputs_.cxHwConfig->flowEntryNotifiees(), name.text()};
  inputs_.cxHwConfig->flowEntryDel(name);
  inputs_.telemetry->newTransactionTimestamp(handle,
                                             P4Runtime::TelemetryTimestampType::configured_);
  const bool writtenAgain =
      watch.overtaken() && findRow(inputs_.ostraConfigTable, key.key) != nullptr;
  if (writtenAgain || index_->handle(key) != mapped) {
    return;  // a reactor wrote the flow again, and has done the bookkeeping for it
  }
  handleVrfChange(key, false, 0, handle);
  index_->handleDel(key);
}

void OstraSm::handleVrfChange(const HashedKey& key, bool newValid, Vrf::VrfIdMap::VrfId newVrf,
                              P4Runtime::EntryHandle handle) {
  const VrfChange change = vrfChange(key, newValid, newVrf);
  Vrf::VrfIdMap::VrfId statusVrf = Vrf::VrfIdMap::none;
  if (change.released && releaseVrf(key, *change.released, handle)) {
    statusVrf = *change.released;
  }
  if (change.taken && takeVrf(key, *change.taken, handle)) {
    statusVrf = *change.taken;
  }
  if (statusVrf != Vrf::VrfIdMap::none) {
    traceRootStatus(statusVrf, handle);
    inputs_.ostraStatusInfo->dependentHandleToVrfMapIs(handle, statusVrf);
  }
}

VrfChange OstraSm::vrfChange(const HashedKey& key, bool newValid,
                             Vrf::VrfIdMap::VrfId newVrf) const {
  const std::optional<Vrf::VrfIdMap::VrfId> oldVrf = index_->vrf(key);
  VrfChange change;
  if (oldVrf && newValid && newVrf == *oldVrf) {
    return change;
  }
  change.released = oldVrf;
  if (newValid) {
    change.taken = newVrf;
  }
  return change;
}

bool OstraSm::isLastUser(Vrf::VrfIdMap::VrfId vrf) const {
  return inputs_.vrfIdCollection->vrfIdRefCount(vrf) == 1U &&
         !inputs_.vrfIdCollection->vrfDeletorRootHandle(vrf);
}

bool OstraSm::isFirstUser(Vrf::VrfIdMap::VrfId vrf) const {
  return inputs_.vrfIdCollection->vrfIdRefCount(vrf).value_or(0) == 0 &&
         !inputs_.vrfIdCollection->vrfCreatorRootHandle(vrf);
}

bool OstraSm::releaseVrf(const HashedKey& key, Vrf::VrfIdMap::VrfId vrf,
                         P4Runtime::EntryHandle handle) {
  const bool last = isLastUser(vrf);
  if (last) {
    inputs_.vrfIdCollection->vrfDeletorRootHandleIs(vrf, handle);
    markDependent(handle);
  }
  const std::uint32_t count = inputs_.vrfIdCollection->vrfIdRefCountDec(vrf, 1);
  index_->vrfDel(key);
  traceDelVrf(vrf, count);
  return last;
}

bool OstraSm::takeVrf(const HashedKey& key, Vrf::VrfIdMap::VrfId vrf,
                      P4Runtime::EntryHandle handle) {
  const bool first = isFirstUser(vrf);
  if (first) {
    inputs_.vrfIdCollection->vrfCreatorRootHandleIs(vrf, handle);
    markDependent(handle);
  }
  index_->vrfIs(key, vrf);
  const std::uint32_t count = inputs_.vrfIdCollection->vrfIdRefCountInc(vrf, 1);
  traceAddVrf(vrf, count);
  return first;
}

void OstraSm::markDependent(P4Runtime::EntryHandle handle) {
  if (const auto root = inputs_.batchStatus->aggregatorStatus().rootStatusEntry(handle)) {
    root->dependentEntryHandleIs(handle, true);
  } else {
    traceNoRoot(handle);  // the entry is in no batch, so no result waits for the VRF
  }
}

}  // namespace Ostra
