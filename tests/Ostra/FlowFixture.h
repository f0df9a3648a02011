// The flow path as a service sees it: a flow table, the state machine that follows it, and everything
// that the state machine writes to.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Ostra/FlowUtil.h"
#include "Ostra/OstraSm.h"
#include "Ostra/OstraStatus.h"
#include "Ostra/Trace.h"
#include "platform/Brisklog/TextTrace.h"
#include "platform/Korm/Clock.h"
#include "platform/OpenFlowTable/HwStatus.h"

namespace OstraTest {

using Ostra::OstraConfigEntry;
using Ostra::OstraKey;
using VrfId = Vrf::VrfIdMap::VrfId;

using Texts = std::vector<std::string>;

// The text of the range exception that a call raises, empty for none.
template <class Call>
std::string raised(Call call) {
  try {
    call();
  } catch (const Korm::RangeException& error) {
    return error.what();
  }
  return {};
}

// Collects the library's text trace while it lives.
class TextTrace {
 public:
  explicit TextTrace(int level) {
    Ostra::traceHandle.levelIs(level);
    Brisklog::textSinkIs([this](const Brisklog::TextMessage& message) {
      texts_.push_back(std::to_string(message.level) + " " + std::string{message.text});
      places_.push_back(std::string{message.unit} + ":" + std::to_string(message.line));
    });
  }
  ~TextTrace() {
    Brisklog::textSinkIs(nullptr);
    Ostra::traceHandle.levelIs(-1);
  }
  TextTrace(const TextTrace&) = delete;
  TextTrace& operator=(const TextTrace&) = delete;

  // Level and text of each message since the last call.
  Texts take() {
    places_.clear();
    return std::exchange(texts_, {});
  }
  // Source unit and line of each message since the last take().
  [[nodiscard]] const Texts& places() const { return places_; }

 private:
  Texts texts_;
  Texts places_;
};

// Stops the process's clock while it lives.
class StoppedClock {
 public:
  explicit StoppedClock(double start) {
    now_ = start;
    Korm::clockIs([] { return now_; });
  }
  ~StoppedClock() { Korm::clockIs(nullptr); }
  StoppedClock(const StoppedClock&) = delete;
  StoppedClock& operator=(const StoppedClock&) = delete;

  void nowIs(double now) { now_ = now; }

 private:
  static inline double now_ = 0;
};

// Collects the results that the service is told.
class Results final : public Korm::Notifiee<const P4Runtime::TransactionResult&> {
 public:
  explicit Results(P4Runtime::BatchStatus& batchStatus) {
    batchStatus.resultNotifiees().attach(*this);
  }
  void onAttribute(const P4Runtime::TransactionResult& result) override {
    texts_ += texts_.empty() ? "" : "; ";
    texts_ += std::to_string(result.handle) + " " + P4Runtime::errorCodeText(result.code);
    texts_ += result.message.empty() ? "" : ": " + std::string{result.message};
  }
  // "7 notFound: Group id: 3 is not found" for each result since the last call, with "; " between.
  std::string take() { return std::exchange(texts_, {}); }

 private:
  std::string texts_;
};

// Counts what an attribute tells, and keeps the last key.
template <class... Args>
class Listener final : public Korm::Notifiee<Args...> {
 public:
  using React = std::function<void(Args...)>;
  explicit Listener(Korm::NotifieeList<Args...>& attribute, React react = {})
      : react_{std::move(react)} {
    attribute.attach(*this);
  }
  void onAttribute(Args... args) override {
    ++count_;
    if (react_) {
      react_(args...);
    }
  }
  int take() { return std::exchange(count_, 0); }

 private:
  React react_;
  int count_ = 0;
};

class FlowFixture : public testing::Test {
 protected:
  FlowFixture() {
    for (const P4Runtime::P4PortId port : {1U, 2U, 3U}) {
      ports->portIs(port, Interface::IntfId{"Ethernet" + std::to_string(port)});
    }
  }

  // A state machine on the table, as the context makes it.
  [[nodiscard]] Korm::Ptr<Ostra::OstraSm> makeSm() const {
    return Ostra::ostraSmFactory(cxHwConfig, cxConfig, cxHwStatusDir, table, vrfs, ports,
                                 validation, statusInfo, batchStatus, telemetry);
  }
  void start() { sm = makeSm(); }

  // An entry of this handle with nothing but a key; its entry id is a thousand more than the handle.
  [[nodiscard]] static OstraConfigEntry flow(std::uint64_t handle, const OstraKey& key) {
    OstraConfigEntry entry;
    entry.entryHandle = handle;
    entry.entryId = static_cast<std::uint32_t>(handle + 1000);
    entry.flowKey = key;
    return entry;
  }
  // A key of its own for each number, without anything to check.
  [[nodiscard]] static OstraKey plainKey(std::uint16_t number) {
    OstraKey key;
    key.priorityIs(10);
    key.l4DstPortIs(number, 0xFFFF);
    return key;
  }
  [[nodiscard]] static OstraConfigEntry flowInVrf(std::uint64_t handle, std::uint16_t number,
                                                  VrfId vrf) {
    OstraConfigEntry entry = flow(handle, plainKey(number));
    entry.vrfGiven = true;
    entry.vrfId = vrf;
    return entry;
  }

  // A controller's write of an entry, in a batch that holds its handle. What came of it at once: results,
  // or "raised: TEXT"; empty when the result is left to the hardware.
  std::string write(const OstraConfigEntry& entry) {
    batchStatus->batchStatusEntryIs(entry.entryHandle);
    return outcome([&] { table->entryIs(entry); });
  }
  // A controller's delete of a stored entry.
  std::string remove(const OstraConfigEntry& entry) {
    batchStatus->batchStatusEntryIs(entry.entryHandle);
    return outcome([&] { EXPECT_TRUE(table->entryDel(entry.key())); });
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
    return statusInfo->dependentHandleToVrfMap(handle).value_or(Vrf::VrfIdMap::none);
  }
  static constexpr VrfId noVrf = 0xFFFFFF;

  Korm::Ptr<OpenFlowTable::HwStatus> publishHwStatus() const {
    auto status = Korm::makePtr<OpenFlowTable::HwStatus>("p4rt");
    cxHwStatusDir->entityIs("p4rt", status);
    return status;
  }

  const Korm::Ptr<OpenFlowTable::CorvexHwConfig> cxHwConfig =
      Korm::makePtr<OpenFlowTable::CorvexHwConfig>("p4rt");
  const Korm::Ptr<CorvexConfig::Config> cxConfig = Korm::makePtr<CorvexConfig::Config>("p4rt");
  const Korm::Ptr<Korm::Dir> cxHwStatusDir = Korm::makePtr<Korm::Dir>("dyninputstatus");
  Korm::Ptr<Ostra::OstraConfig> table = Korm::makePtr<Ostra::OstraConfig>("0");
  const Korm::Ptr<P4Runtime::VrfIdCollection> vrfs = Korm::makePtr<P4Runtime::VrfIdCollection>();
  const Korm::Ptr<P4RuntimeConfig::PortMappingStatus> ports =
      Korm::makePtr<P4RuntimeConfig::PortMappingStatus>();
  const Korm::Ptr<P4Runtime::BatchStatus> batchStatus = Korm::makePtr<P4Runtime::BatchStatus>();
  const Korm::Ptr<P4Runtime::ValidationHelper> validation =
      Korm::makePtr<P4Runtime::DefaultValidationHelper>(batchStatus);
  const Korm::Ptr<Ostra::OstraStatusInfo> statusInfo = Ostra::ostraStatusInfoFactory();
  const Korm::Ptr<P4Runtime::Telemetry> telemetry = Korm::makePtr<P4Runtime::Telemetry>();
  Results results{*batchStatus};
  Korm::Ptr<Ostra::OstraSm> sm;

 private:
  template <class Call>
  std::string outcome(Call call) {
    const std::string error = raised(call);
    const std::string told = results.take();
    return error.empty() ? told : told + "raised: " + error;
  }
};

}  // namespace OstraTest
