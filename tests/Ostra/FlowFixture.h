// The flow path as a service sees it: a flow table, the state machine that follows it, and
// everything that the state machine writes to.
#pragma once

#include "Ostra/FlowUtil.h"
#include "Ostra/OstraSm.h"
#include "ServiceFixture.h"

namespace OstraTest {

using Ostra::OstraConfigEntry;
using VrfId = Vrf::VrfIdMap::VrfId;

class FlowFixture : public ServiceFixture {
 protected:
  // Makes a state machine on the table, as the context does. `change` gives it other inputs.
  void start(const std::function<void(Ostra::OstraSm::Inputs&)>& change = [](auto&) {}) {
    Ostra::OstraSm::Inputs inputs{cxHwConfig, cxConfig,   cxHwStatusDir, table,       vrfs,
                                  ports,      validation, statusInfo,    batchStatus, telemetry};
    change(inputs);
    sm = Ostra::ostraSmFactory(inputs);
  }

  // An entry of this handle with nothing but a key; its entry id is a thousand more than the
  // handle.
  [[nodiscard]] static OstraConfigEntry flow(std::uint64_t handle, const OstraKey& key) {
    OstraConfigEntry entry;
    entry.entryHandle = handle;
    entry.entryId = static_cast<std::uint32_t>(handle + 1000);
    entry.flowKey = key;
    return entry;
  }
  [[nodiscard]] static OstraConfigEntry flowInVrf(std::uint64_t handle, std::uint16_t number,
                                                  VrfId vrf) {
    OstraConfigEntry entry = flow(handle, plainKey(number));
    entry.vrfGiven = true;
    entry.vrfId = vrf;
    return entry;
  }

  // A controller's write of an entry, in a batch that holds its handle. What came of it at once:
  // results, or "raised: TEXT"; empty when the result is left to the hardware.
  std::string write(const OstraConfigEntry& entry) {
    batchStatus->batchStatusEntryIs(entry.entryHandle);
    return cameOf([&] { table->entryIs(entry); });
  }
  // A controller's delete of a stored entry.
  std::string remove(const OstraConfigEntry& entry) {
    batchStatus->batchStatusEntryIs(entry.entryHandle);
    return cameOf([&] { EXPECT_TRUE(table->entryDel(entry.key())); });
  }

  [[nodiscard]] const OpenFlowTable::FlowEntry* cxFlow(std::uint64_t handle) const {
    return cxHwConfig->flowEntry("flow-" + std::to_string(handle));
  }
  // Asserts that there is such a flow.
  [[nodiscard]] const OpenFlowTable::FlowEntry& theFlow(std::uint64_t handle) const {
    const auto* const found = cxFlow(handle);
    Korm::assertTrue(found != nullptr, "the test's flow is there");
    return *found;
  }
  void placeCxFlow(const std::string& name) {
    cxHwConfig->flowEntryIs(name, {}, {}, OpenFlowTable::Priority{1}, 0,
                            OpenFlowTable::TableType::l2_, 0, 0, 0, false, true);
  }

  // Count, creator and deletor of a VRF: "2 users, creator 1, deletor none".
  [[nodiscard]] std::string books(VrfId vrf) const {
    const auto text = [](const auto& number) {
      return number ? std::to_string(*number) : std::string{"none"};
    };
    return text(vrfs->vrfIdRefCount(vrf)) + " users, creator " +
           text(vrfs->vrfCreatorRootHandle(vrf)) + ", deletor " +
           text(vrfs->vrfDeletorRootHandle(vrf));
  }
  static constexpr const char* neverUsed = "none users, creator none, deletor none";
  // Whether the entry's result is held back for its root entry.
  [[nodiscard]] bool isDependent(std::uint64_t handle) const {
    const auto root = batchStatus->aggregatorStatus().rootStatusEntry(handle);
    return root && root->dependentEntryHandles() == std::vector<P4Runtime::EntryHandle>{handle};
  }
  // The VRF that the status side finds for an entry.
  [[nodiscard]] VrfId dependentVrf(std::uint64_t handle) const {
    return statusInfo->dependentHandleToVrfMap(handle);
  }
  static constexpr VrfId noVrf = 0xFFFFFF;

 public:
  Korm::Ptr<Ostra::OstraConfig> table = Korm::makePtr<Ostra::OstraConfig>("0");
  Korm::Ptr<Ostra::OstraSm> sm;

 private:
  template <class Call>
  std::string cameOf(Call call) {
    const std::string error = messageOf<Korm::RangeException>(call);
    const std::string told = results.take();
    return error.empty() ? told : told + "raised: " + error;
  }
};

}  // namespace OstraTest
