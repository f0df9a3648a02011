// The flow state machine: turns the entries of one flow configuration table into Corvex flows.
//
// Threads: the activity thread of the hosting service.
// Ownership: holds references to its inputs. The Corvex flows belong to the hardware configuration
// and stay there when the state machine is destroyed.
// Invariant: every Corvex flow that it writes is named after its entry's handle (FlowUtil.h), and
// the key is mapped to that handle before the flow is written.
//
// The way of a flow: OstraSm.cpp, from handleFlowConfig() over buildMatch() and buildActions() to
// the write in writeFlow(). The checks are in OstraSmValidation.cpp, the match fields in
// private/MatchTranslation.cpp, the indexes in private/FlowIndex.h.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include "Ostra/FlowPreview.h"
#include "Ostra/OstraStatus.h"
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

class FlowIndex;

class OstraSm final : public Korm::Entity {
 public:
  // The objects that a state machine works on. Any may be null. Without a table it never sees a
  // change. Without a hardware configuration it writes nothing.
  // Requires: the objects from `vrfIdCollection` on are not null when there is a flow to translate.
  struct Inputs {
    Korm::Ptr<OpenFlowTable::CorvexHwConfig> cxHwConfig;
    Korm::Ptr<CorvexConfig::Config> cxConfig;
    Korm::Ptr<const Korm::Dir> cxHwStatusDir;
    Korm::Ptr<OstraConfig> ostraConfigTable;
    Korm::Ptr<P4Runtime::VrfIdCollection> vrfIdCollection;
    Korm::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus;
    Korm::Ptr<P4Runtime::ValidationHelper> validationHelper;
    Korm::Ptr<OstraStatusInfo> ostraStatusInfo;
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus;
    Korm::Ptr<P4Runtime::Telemetry> telemetry;

    friend bool operator==(const Inputs&, const Inputs&) noexcept = default;
  };

  // Watches the table and reconciles Corvex with it.
  // Throws: what handleFlowConfig() throws. What was written to Corvex until then stays.
  explicit OstraSm(Inputs inputs);
  ~OstraSm() override;

  [[nodiscard]] const Inputs& inputs() const noexcept { return inputs_; }
  // The watched table, or null.
  [[nodiscard]] const Korm::Ptr<OstraConfig>& ostraConfigTable() const noexcept {
    return inputs_.ostraConfigTable;
  }

  // The VRF in which the flow of a key lives, Vrf::VrfIdMap::none for none.
  [[nodiscard]] Vrf::VrfIdMap::VrfId vrfId(const OstraKey& key) const noexcept;
  void vrfIdIs(const OstraKey& key, Vrf::VrfIdMap::VrfId vrf);
  // The VRF removed, Vrf::VrfIdMap::none when there was none.
  Vrf::VrfIdMap::VrfId vrfIdDel(const OstraKey& key) noexcept;
  void vrfIdDelAll() noexcept;

  // The entry handle under which the flow of a key was written, if it was.
  [[nodiscard]] std::optional<std::uint64_t> flowKeyToEntryHandle(
      const HashedKey& key) const noexcept;
  [[nodiscard]] std::optional<std::uint64_t> flowKeyToEntryHandle(
      const OstraKey& key) const noexcept {
    return flowKeyToEntryHandle(HashedKey{key});
  }
  void flowKeyToEntryHandleIs(const OstraKey& key, std::uint64_t handle);
  // The handle removed, 0 when there was none.
  std::uint64_t flowKeyToEntryHandleDel(const OstraKey& key) noexcept;
  void flowKeyToEntryHandleDelAll() noexcept;

  // Set once the start-up reconciliation has begun.
  [[nodiscard]] bool initialized() const noexcept { return initialized_; }
  void initializedIs(bool initialized) noexcept { initialized_ = initialized; }

  // Brings Corvex in line with the table for one key, whether its entry was inserted, changed or
  // removed. Entry errors are recorded in the batch status.
  // Throws: Korm::RangeException for an entry with a value out of range.
  void handleFlowConfig(const OstraKey& key);

  // Prefetches what handleFlowConfig() will look up for these keys. For a service that is about to
  // modify or remove the rows of a batch: in a large table each look-up would otherwise wait for
  // memory. Changes nothing but the time. Keys after the first `prefetchable` are left out.
  static constexpr std::size_t prefetchable = 64;
  void prefetch(std::span<const OstraKey* const> keys) const noexcept;

  // What writing the entry now would do. It takes the same steps as a write, but changes nothing
  // and traces nothing.
  [[nodiscard]] FlowPreview preview(const OstraConfigEntry& entry) const;

  // How many keys have a handle, a VRF or both.
  [[nodiscard]] std::size_t indexedKeys() const noexcept;
  // Calls visit(key, handle, vrf) for each of them.
  using VisitIndexed = std::function<void(const OstraKey& key, std::optional<std::uint64_t> handle,
                                          std::optional<Vrf::VrfIdMap::VrfId> vrf)>;
  void forEachIndexed(const VisitIndexed& visit) const;

  // Asserts every invariant of the indexes.
  void verify() const;

 private:
  // Switches the reactor on the table.
  void onNotificationActive(bool active) override;

  // Start-up: enables Corvex, deletes the flows that the table does not have, and translates all
  // entries.
  void handleInitialized();
  void deleteStaleFlows();

  // The work of handleFlowConfig().
  // Throws: entry errors and range exceptions.
  void handleFlowConfigImpl(const HashedKey& key);
  void insertFlow(const HashedKey& key, const OstraConfigEntry& entry);
  // The last step of a write.
  void writeFlow(const Korm::HashedName& name, const TranslatedFlow& translated,
                 const OstraConfigEntry& entry);
  void deleteFlow(const HashedKey& key);

  // The steps of a write that change something while the entry is being translated.
  class Effects {
   public:
    virtual void bookVrf() = 0;
    virtual void mapKey() = 0;

   protected:
    ~Effects() = default;
  };
  // Takes the steps of a write in their order, except the last one.
  // Throws: entry errors and range exceptions.
  void translate(const OstraConfigEntry& entry, TranslatedFlow& flow, Effects& effects) const;
  void buildMatch(const OstraConfigEntry& entry, TranslatedFlow& flow) const;
  void buildActions(const OstraConfigEntry& entry, TranslatedFlow& flow, Effects& effects) const;

  // Completes the preview of an entry that the present step refuses.
  static void previewRefusal(const OstraConfigEntry& entry,
                             const P4Runtime::P4RuntimeExceptionBase& error, FlowPreview& preview);
  // What the steps that a preview went through would have changed, and the group that they need.
  void previewEffects(const HashedKey& key, const OstraConfigEntry& entry,
                      FlowPreview& preview) const;

  // Books the VRF that a flow uses from now on: `newVrf` if `newValid`, otherwise none. If the flow
  // is the first or the last user of a VRF, and the batch holds the handle, the result of the flow
  // is delivered to the root entry of the VRF.
  void handleVrfChange(const HashedKey& key, bool newValid, Vrf::VrfIdMap::VrfId newVrf,
                       P4Runtime::EntryHandle handle);
  // Which VRF it would release and which it would take.
  [[nodiscard]] VrfChange vrfChange(const HashedKey& key, bool newValid,
                                    Vrf::VrfIdMap::VrfId newVrf) const;
  [[nodiscard]] bool isLastUser(Vrf::VrfIdMap::VrfId vrf) const;
  [[nodiscard]] bool isFirstUser(Vrf::VrfIdMap::VrfId vrf) const;
  // Each changes the user count of the VRF. If the entry is the last or the first user, it is
  // marked as dependent in its root status entry, and the result is true.
  bool releaseVrf(const HashedKey& key, Vrf::VrfIdMap::VrfId vrf, P4Runtime::EntryHandle handle);
  bool takeVrf(const HashedKey& key, Vrf::VrfIdMap::VrfId vrf, P4Runtime::EntryHandle handle);
  void markDependent(P4Runtime::EntryHandle handle);

  // Checks; each throws an entry error through the validation helper. OstraSmValidation.cpp.
  void validateFlowKey(const OstraKey& key, P4Runtime::EntryHandle handle) const;
  void validatePortAndMask(P4Runtime::EntryHandle handle, P4Runtime::P4PortId portId,
                           P4Runtime::P4PortId mask, const Korm::String& fieldName) const;
  void validateFlowAction(const OpenFlowTable::Actions& actions,
                          const OpenFlowTable::ActionSet& actionSet,
                          const OstraConfigEntry& entry) const;
  [[nodiscard]] GroupNeed groupNeed(OpenFlowTable::GroupId id) const;
  // The field for which validateFlowKey() refuses the key, if it is a single one.
  [[nodiscard]] static std::optional<MatchFieldId> refusedField(const OstraKey& key);

  // Members are destroyed in reverse order: the reactor first, the inputs last.
  const Inputs inputs_;
  const std::unique_ptr<FlowIndex> index_;
  bool initialized_ = false;
  // Set if there is a table.
  std::optional<Korm::MemberNotifiee<OstraSm, &OstraSm::handleFlowConfig, const OstraKey&>>
      reactor_;
};

// A state machine with its notifications on. The arguments are the members of OstraSm::Inputs, in
// order.
template <class... Inputs>
[[nodiscard]] Korm::Ptr<OstraSm> OstraSmIs(Inputs&&... inputs) {
  return Korm::makeActive<OstraSm>(OstraSm::Inputs{std::forward<Inputs>(inputs)...});
}
template <class... Inputs>
[[nodiscard]] Korm::Ptr<OstraSm> ostraSmFactory(Inputs&&... inputs) {
  return OstraSmIs(std::forward<Inputs>(inputs)...);
}

}  // namespace Ostra
