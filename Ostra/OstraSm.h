// The flow state machine: turns the entries of one flow configuration table into Corvex flows.
//
// Thread and process rule: the activity thread of the hosting service.
// Ownership: holds references to its inputs; the Corvex flows belong to the hardware configuration and
// stay there when the state machine goes.
// Invariants: every Corvex flow that it writes is named after its entry's handle (FlowUtil.h), and the
// key is mapped to that handle before the flow is written.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "Ostra/FlowIndex.h"
#include "Ostra/OstraTypes.h"
#include "platform/CorvexConfig/Config.h"
#include "platform/Korm/Dir.h"
#include "platform/Korm/Entity.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/P4Runtime/BatchStatus.h"
#include "platform/P4Runtime/Telemetry.h"
#include "platform/P4Runtime/Validation.h"
#include "platform/P4Runtime/VrfIdCollection.h"
#include "platform/P4RuntimeConfig/PortMappingStatus.h"

namespace Ostra {

class OstraStatusInfo;

class OstraSm final : public Korm::Entity {
 public:
  // Stores the inputs, watches the table, and reconciles Corvex with it. Inputs may be null: without a
  // table it never sees a change, without a hardware configuration it has nowhere to write flows. The
  // service's own objects are needed as soon as there is a flow to translate. When reconciliation
  // raises, nothing is left behind but what was already written to Corvex and the service's books.
  OstraSm(Korm::Ptr<OpenFlowTable::CorvexHwConfig> cxHwConfig,
          Korm::Ptr<CorvexConfig::Config> cxConfig, Korm::Ptr<const Korm::Dir> cxHwStatusDir,
          const Korm::Ptr<OstraConfig>& ostraConfigTable,
          Korm::Ptr<P4Runtime::VrfIdCollection> vrfIdCollection,
          Korm::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus,
          Korm::Ptr<P4Runtime::ValidationHelper> validationHelper,
          Korm::Ptr<OstraStatusInfo> ostraStatusInfo, Korm::Ptr<P4Runtime::BatchStatus> batchStatus,
          Korm::Ptr<P4Runtime::Telemetry> telemetry);
  ~OstraSm() override;

  // The watched table, or null.
  [[nodiscard]] Korm::Ptr<OstraConfig> ostraConfigTable() const noexcept {
    return reactor_ ? reactor_->table : nullptr;
  }
  [[nodiscard]] const Korm::Ptr<OstraStatusInfo>& ostraStatusInfo() const noexcept {
    return ostraStatusInfo_;
  }

  // The VRF in which the flow of a key lives, Vrf::VrfIdMap::none for none.
  [[nodiscard]] Vrf::VrfIdMap::VrfId vrfId(const OstraKey& key) const noexcept {
    return index_.vrf(key, key.hash(0)).value_or(Vrf::VrfIdMap::none);
  }
  void vrfIdIs(const OstraKey& key, Vrf::VrfIdMap::VrfId vrf) {
    index_.vrfIs(key, key.hash(0), vrf);
  }
  // The VRF removed, Vrf::VrfIdMap::none when there was none.
  Vrf::VrfIdMap::VrfId vrfIdDel(const OstraKey& key) noexcept {
    return index_.vrfDel(key, key.hash(0));
  }
  void vrfIdDelAll() noexcept { index_.vrfDelAll(); }

  // The entry handle under which the flow of a key was written, if it was.
  [[nodiscard]] std::optional<std::uint64_t> flowKeyToEntryHandle(
      const OstraKey& key) const noexcept {
    return index_.handle(key, key.hash(0));
  }
  void flowKeyToEntryHandleIs(const OstraKey& key, std::uint64_t handle) {
    index_.handleIs(key, key.hash(0), handle);
  }
  // The handle removed, 0 when there was none.
  std::uint64_t flowKeyToEntryHandleDel(const OstraKey& key) noexcept {
    return index_.handleDel(key, key.hash(0));
  }
  void flowKeyToEntryHandleDelAll() noexcept { index_.handleDelAll(); }

  // Set once the start-up reconciliation has begun.
  [[nodiscard]] bool initialized() const noexcept { return initialized_; }
  void initializedIs(bool initialized) noexcept { initialized_ = initialized; }

  // Brings Corvex in line with the table for one key, inserted, changed or removed. Entry errors are
  // recorded in the batch status; a Korm::RangeException leaves to the caller.
  void handleFlowConfig(const OstraKey& key);

  // Asserts every invariant of the indexes.
  void verify() const { index_.verify(); }

 private:
  void onNotificationActive(bool active) override;
  // The reactor on the table, with its reference to it.
  struct TableReactor {
    TableReactor(OstraSm& sm, const Korm::Ptr<OstraConfig>& watched)
        : table{watched}, notifiee{sm, watched->entryNotifiees()} {}
    Korm::Ptr<OstraConfig> table;
    Korm::MemberNotifiee<OstraSm, &OstraSm::handleFlowConfig, const OstraKey&> notifiee;
  };

  // Start-up: enables Corvex, deletes the flows that the table does not know, translates all entries.
  void handleInitialized();
  void deleteStaleFlows();
  template <class Handle>
  void forEachEntry(Handle handle) const;

  // The work for one key, with its hash. Raises entry errors and range exceptions.
  void handleFlowConfigImpl(const OstraKey& key, std::uint32_t hash);
  void insertFlow(const OstraKey& key, std::uint32_t hash, const OstraConfigEntry& entry);
  void deleteFlow(const OstraKey& key, std::uint32_t hash);
  void buildMatch(const OstraKey& key, P4Runtime::EntryHandle handle,
                  OpenFlowTable::Match& match) const;
  void buildActions(const OstraKey& key, std::uint32_t hash, const OstraConfigEntry& entry,
                    OpenFlowTable::Actions& actions);

  // Books the VRF that a flow uses from now on: `newVrf` if `newValid`, otherwise none. The batch should
  // hold the handle when the flow is its VRF's first or last; else nobody hears of the dependence.
  void handleVrfChange(const OstraKey& key, std::uint32_t hash, bool newValid,
                       Vrf::VrfIdMap::VrfId newVrf, P4Runtime::EntryHandle handle);
  // Each marks the entry in its root status entry, and returns true, if it is the VRF's last or first.
  bool releaseVrf(const OstraKey& key, std::uint32_t hash, Vrf::VrfIdMap::VrfId vrf,
                  P4Runtime::EntryHandle handle);
  bool takeVrf(const OstraKey& key, std::uint32_t hash, Vrf::VrfIdMap::VrfId vrf,
               P4Runtime::EntryHandle handle);
  void markDependent(P4Runtime::EntryHandle handle);

  // Checks; each raises an entry error through the validation helper. OstraSmValidation.cpp.
  void validateFlowKey(const OstraKey& key, P4Runtime::EntryHandle handle) const;
  void validatePortAndMask(P4Runtime::EntryHandle handle, P4Runtime::P4PortId portId,
                           P4Runtime::P4PortId mask, const Korm::String& fieldName) const;
  void validateFlowAction(const OpenFlowTable::Actions& actions,
                          const OpenFlowTable::ActionSet& actionSet,
                          const OstraConfigEntry& entry) const;
  [[nodiscard]] bool groupReady(OpenFlowTable::GroupId id) const;

  // Inputs, constant after construction, in the order in which they are taken.
  const Korm::Ptr<OpenFlowTable::CorvexHwConfig> cxHwConfig_;
  const Korm::Ptr<CorvexConfig::Config> cxConfig_;
  const Korm::Ptr<const Korm::Dir> cxHwStatusDir_;
  std::optional<TableReactor> reactor_;  // none without a table
  const Korm::Ptr<P4Runtime::VrfIdCollection> vrfIdCollection_;
  const Korm::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus_;
  const Korm::Ptr<P4Runtime::ValidationHelper> validationHelper_;
  const Korm::Ptr<OstraStatusInfo> ostraStatusInfo_;
  const Korm::Ptr<P4Runtime::BatchStatus> batchStatus_;
  const Korm::Ptr<P4Runtime::Telemetry> telemetry_;

  // The activity thread.
  FlowIndex index_;
  bool initialized_ = false;
};

// A state machine with its notifications on; the inputs are the constructor's arguments.
template <class... Inputs>
[[nodiscard]] Korm::Ptr<OstraSm> OstraSmIs(Inputs&&... inputs) {
  auto sm = Korm::makePtr<OstraSm>(std::forward<Inputs>(inputs)...);
  sm->hasNotificationActiveIs(true);
  return sm;
}
template <class... Inputs>
[[nodiscard]] Korm::Ptr<OstraSm> ostraSmFactory(Inputs&&... inputs) {
  return OstraSmIs(std::forward<Inputs>(inputs)...);
}

}  // namespace Ostra
