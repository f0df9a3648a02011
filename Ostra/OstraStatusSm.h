// Turns what the hardware says of flows and groups into the results of the controller's writes.
//
// Threads: the activity thread.
// Ownership: a state machine holds references to its inputs and owns its reactors. The one for the
// directory owns the one for the hardware status in it.
// Invariant: nothing is remembered between two changes; a result is what the hardware says at that
// moment. It is re-entrant: the service, when it is notified of a result, may change the hardware
// status or drop the state machine.
#pragma once

#include <cstdint>
#include <utility>

#include "Ostra/OstraStatus.h"
#include "platform/Korm/Dir.h"
#include "platform/Korm/Entity.h"
#include "platform/Korm/HashMap.h"
#include "platform/OpenFlowTable/HwStatus.h"
#include "platform/P4Runtime/BatchStatus.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace Ostra {

// Reports what one hardware status says. The result of a flow goes to the batch status, or to the
// root status entry if a VRF waits for it. The failure of a group or member goes to the batch
// status entry of its write; its success is not reported from here.
class OstraStatusSm final : public Korm::Entity {
 public:
  using FlowStats = OpenFlowTable::FlowStats;
  using GroupId = OpenFlowTable::GroupId;
  using GroupStats = OpenFlowTable::GroupStats;

  // Any but `cxHwStatus` may be null. A result that cannot be delivered then is dropped.
  // Requires: `cxHwStatus` is not null.
  struct Inputs {
    Korm::Ptr<const OpenFlowTable::HwStatus> cxHwStatus;
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus;
    Korm::Ptr<OstraStatusInfo> ostraStatusInfo;
    Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable;
    Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable;

    friend bool operator==(const Inputs&, const Inputs&) noexcept = default;
  };

  // Attaches to everything in the status, and then reports it.
  explicit OstraStatusSm(Inputs inputs);

  [[nodiscard]] const Inputs& inputs() const noexcept { return inputs_; }
  [[nodiscard]] bool initialized() const noexcept { return initialized_; }

  // The start-up pass: reports all flows, then all groups.
  void handleInitialized();

  // Reports the result of one flow. A flow that the hardware no longer has is a success. A flow
  // that the hardware is still programming is not reported.
  void handleFlowHwStatus(const Korm::Name& flowName);
  // Reports every flow of the status.
  void handleFlowHwStatus();
  // Reports one group. It is an ECMP group if the upper half of its id is zero, and otherwise an
  // ECMP member.
  void handleGroupHwStatus(GroupId groupId);
  // Reports every group of the status.
  void handleGroupHwStatus();

  // The reactors to single flows and groups, one for each in the status.
  void flowStatsIs(const FlowStats& flowStats);
  void flowStatsDel(const Korm::Name& flowName);
  void flowStatsDelAll();
  [[nodiscard]] const auto& flowStats() const noexcept { return flowStats_; }
  void groupStatsIs(const GroupStats& groupStats);
  void groupStatsDel(GroupId groupId);
  void groupStatsDelAll();
  [[nodiscard]] const auto& groupStats() const noexcept { return groupStats_; }

 private:
  // Switches the reactors. When they are switched on, they are first brought in line with the
  // status.
  void onNotificationActive(bool active) override;

  // Reacts to the status and the change count of one flow or group. Its report may lead to its own
  // destruction.
  template <class Stats>
  class StatsReactor {
   public:
    StatsReactor(OstraStatusSm& sm, const Stats& stats)
        : sm_{sm},
          stats_{stats},
          changeCount_{*this, stats.changeCountNotifiees()},
          status_{*this, stats.statusNotifiees()} {
      hasNotificationActiveIs(sm.cxHwStatusActive());
    }

    // Whether it is attached to these statistics, and not to deleted ones at the same address.
    [[nodiscard]] bool follows(const Stats& stats) const noexcept {
      return &stats_ == &stats && status_.attached();
    }
    void hasNotificationActiveIs(bool active) noexcept {
      changeCount_.hasNotificationActiveIs(active);
      status_.hasNotificationActiveIs(active);
    }

   private:
    void handleChangeCount() { sm_.handleStats(stats_); }
    void handleStatus() { handleChangeCount(); }

    OstraStatusSm& sm_;
    const Stats& stats_;
    Korm::MemberNotifiee<StatsReactor, &StatsReactor::handleChangeCount> changeCount_;
    Korm::MemberNotifiee<StatsReactor, &StatsReactor::handleStatus> status_;
  };

  // Makes a reactor for each flow and group of the status, and removes those of any other.
  void handleCxHwStatus();
  [[nodiscard]] bool cxHwStatusActive() const noexcept {
    return flowStatsReactor_.hasNotificationActive();
  }
  // A flow or group was added or removed.
  void handleFlowStats(const Korm::Name& name);
  void handleGroupStats(const GroupId& id);
  // An existing one changed.
  void handleStats(const FlowStats& stats);
  void handleStats(const GroupStats& stats);

  // `stats` are the statistics of that name or id in the status, or null.
  void reportFlow(const Korm::Name& name, const FlowStats* stats);
  void reportResult(P4Runtime::EntryHandle handle, P4Runtime::ErrorCode code);
  void reportDependentResult(P4Runtime::EntryHandle handle, P4Runtime::ErrorCode code);
  void reportGroup(GroupId id, const GroupStats* stats);
  void flowStatsIs(const FlowStats& flowStats, std::uint32_t hash);

  const Inputs inputs_;
  bool initialized_ = false;
  Korm::HashMap<Korm::Name, StatsReactor<FlowStats>> flowStats_;
  Korm::HashMap<GroupId, StatsReactor<GroupStats>> groupStats_;
  Korm::MemberNotifiee<OstraStatusSm, &OstraStatusSm::handleFlowStats, const Korm::Name&>
      flowStatsReactor_;
  Korm::MemberNotifiee<OstraStatusSm, &OstraStatusSm::handleGroupStats, const GroupId&>
      groupStatsReactor_;
};

// Has an OstraStatusSm while the directory contains a hardware status named "p4rt".
class OstraStatusDirSm final : public Korm::Entity {
 public:
  // Any but `cxStatusDir` may be null.
  // Requires: `cxStatusDir` is not null.
  struct Inputs {
    Korm::Ptr<const Korm::Dir> cxStatusDir;
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus;
    Korm::Ptr<OstraStatusInfo> ostraStatusInfo;
    Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable;
    Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable;

    friend bool operator==(const Inputs&, const Inputs&) noexcept = default;
  };

  // Looks at all entities of the directory.
  explicit OstraStatusDirSm(Inputs inputs);
  // Switches the status state machine off and drops it.
  ~OstraStatusDirSm() override;

  [[nodiscard]] const Inputs& inputs() const noexcept { return inputs_; }
  [[nodiscard]] bool initialized() const noexcept { return initialized_; }

  // The start-up pass over the directory.
  void handleInitialized();
  // Brings the status state machine in line with the entity of that name. Any name but "p4rt" is
  // ignored.
  void handleStatusDir(const Korm::Name& name);
  // The same for every entity of the directory.
  void handleStatusDir();

  // The status state machine, or null.
  [[nodiscard]] const Korm::Ptr<OstraStatusSm>& p4RtCxStatusSm() const noexcept {
    return p4RtCxStatusSm_;
  }
  // Keeps the state machine if its inputs are the same objects. Otherwise creates a new one, which
  // reports everything in its status, and then drops the old one. Returns the one stored then.
  Korm::Ptr<OstraStatusSm> p4RtCxStatusSmIs(
      const Korm::Ptr<const OpenFlowTable::HwStatus>& hwStatus,
      const Korm::Ptr<P4Runtime::BatchStatus>& batchStatus,
      const Korm::Ptr<OstraStatusInfo>& ostraStatusInfo,
      const Korm::Ptr<P4RuntimeRouting::EcmpGroup>& p4rtEcmpGroupTable,
      const Korm::Ptr<P4RuntimeRouting::EcmpMember>& p4rtEcmpMemberTable);
  // Switches it off and drops it.
  void p4RtCxStatusSmDel();

 private:
  // Switches the reactor and the status state machine.
  void onNotificationActive(bool active) override;

  const Inputs inputs_;
  bool initialized_ = false;
  bool settling_ = false;  // handleStatusDir() is bringing the state machine in line
  Korm::Ptr<OstraStatusSm> p4RtCxStatusSm_;
  Korm::MemberNotifiee<OstraStatusDirSm,
                       static_cast<void (OstraStatusDirSm::*)(const Korm::Name&)>(
                           &OstraStatusDirSm::handleStatusDir),
                       const Korm::Name&>
      directoryReactor_;
};

// State machines with their start-up pass done and their notifications on. The arguments are the
// members of the Inputs, in order.
template <class... Inputs>
[[nodiscard]] Korm::Ptr<OstraStatusSm> ostraStatusSmFactory(Inputs&&... inputs) {
  return Korm::makeActive<OstraStatusSm>(OstraStatusSm::Inputs{std::forward<Inputs>(inputs)...});
}
template <class... Inputs>
[[nodiscard]] Korm::Ptr<OstraStatusDirSm> ostraStatusDirSmFactory(Inputs&&... inputs) {
  return Korm::makeActive<OstraStatusDirSm>(
      OstraStatusDirSm::Inputs{std::forward<Inputs>(inputs)...});
}

}  // namespace Ostra
