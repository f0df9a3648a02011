// What the hardware says of flows and groups, turned into the results of the controller's writes.
//
// Thread and process rule: the activity thread.
// Ownership: a state machine holds references to its inputs and owns its reactors; the one for the directory
// owns the one for the status in it.
// Invariants: nothing is remembered between two changes; a result is what the hardware says at that moment.
// A result may lead the service to drop the state machine that is reporting it.
#pragma once

#include <cstdint>

#include "Ostra/OstraStatus.h"
#include "platform/Korm/Dir.h"
#include "platform/Korm/Entity.h"
#include "platform/Korm/HashMap.h"
#include "platform/OpenFlowTable/HwStatus.h"
#include "platform/P4Runtime/BatchStatus.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace Ostra {

// Reports what one hardware status says. The result of a flow goes to the batch status, or to the root
// status entry for one that a VRF waits for; of a group or member, failures go to the batch status entry of
// its write, and success is not reported from here.
class OstraStatusSm final : public Korm::Entity {
 public:
  using FlowStats = OpenFlowTable::FlowStats;
  using GroupId = OpenFlowTable::GroupId;
  using GroupStats = OpenFlowTable::GroupStats;

  // Reports all that the status holds. `cxHwStatus` is not null, any other input may be: a result that
  // has nowhere to go is dropped.
  OstraStatusSm(Korm::Ptr<const OpenFlowTable::HwStatus> cxHwStatus,
                Korm::Ptr<P4Runtime::BatchStatus> batchStatus,
                Korm::Ptr<OstraStatusInfo> ostraStatusInfo,
                Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable,
                Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable);

  [[nodiscard]] const Korm::Ptr<const OpenFlowTable::HwStatus>& cxHwStatus() const noexcept {
    return cxHwStatus_;
  }
  [[nodiscard]] const Korm::Ptr<P4Runtime::BatchStatus>& batchStatus() const noexcept {
    return batchStatus_;
  }
  [[nodiscard]] const Korm::Ptr<OstraStatusInfo>& ostraStatusInfo() const noexcept {
    return ostraStatusInfo_;
  }
  [[nodiscard]] const Korm::Ptr<P4RuntimeRouting::EcmpGroup>& p4rtEcmpGroupTable() const noexcept {
    return p4rtEcmpGroupTable_;
  }
  [[nodiscard]] const Korm::Ptr<P4RuntimeRouting::EcmpMember>& p4rtEcmpMemberTable()
      const noexcept {
    return p4rtEcmpMemberTable_;
  }
  [[nodiscard]] bool initialized() const noexcept { return initialized_; }

  // The start-up pass: reports all flows, then all groups.
  void handleInitialized();

  // Reports the result of one flow; a flow that the hardware no longer has is a success, one that it is
  // still at is not reported.
  void handleFlowHwStatus(const Korm::Name& flowName);
  // Reports every flow of the status.
  void handleFlowHwStatus();
  // Reports one group, which stands for an ECMP group or, with anything in the upper half of its id, for a
  // member.
  void handleGroupHwStatus(GroupId groupId);
  // Reports every group of the status.
  void handleGroupHwStatus();

  // The reactors to single flows and groups, one for each that the status holds.
  void flowStatsIs(const FlowStats& flowStats);
  void flowStatsDel(const Korm::Name& flowName);
  void flowStatsDelAll();
  [[nodiscard]] std::size_t flowReactors() const noexcept { return flowReactors_.size(); }
  void groupStatsIs(const GroupStats& groupStats);
  void groupStatsDel(GroupId groupId);
  void groupStatsDelAll();
  [[nodiscard]] std::size_t groupReactors() const noexcept { return groupReactors_.size(); }

 private:
  void onNotificationActive(bool active) override;
  // Follows the status and the change count of one flow or group. It may go while it reports.
  template <class Stats>
  class StatsReactor {
   public:
    StatsReactor(OstraStatusSm& sm, const Stats& stats)
        : sm_{sm},
          stats_{stats},
          changeCount_{*this, stats.changeCountNotifiees()},
          status_{*this, stats.statusNotifiees()} {
      hasNotificationActiveIs(sm.hasNotificationActive());
    }

    // Another element may have come to lie where the one that this followed was.
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

  void handleStats(const FlowStats& stats) { reportFlow(stats.name(), &stats); }
  void handleStats(const GroupStats& stats) { reportGroup(stats.id(), &stats); }
  void handleFlowStats(const Korm::Name& name);
  void handleGroupStats(const GroupId& id);
  void handleCxHwStatus();

  // The statistics are what the status holds under that name or id, null for nothing.
  void reportFlow(const Korm::Name& name, const FlowStats* stats);
  void reportResult(P4Runtime::EntryHandle handle, P4Runtime::ErrorCode code);
  void reportDependentResult(P4Runtime::EntryHandle handle, Vrf::VrfIdMap::VrfId vrf,
                             P4Runtime::ErrorCode code);
  void reportGroup(GroupId id, const GroupStats* stats);
  void flowStatsIs(const FlowStats& flowStats, std::uint32_t hash);

  // Inputs, constant after construction.
  const Korm::Ptr<const OpenFlowTable::HwStatus> cxHwStatus_;
  const Korm::Ptr<P4Runtime::BatchStatus> batchStatus_;
  const Korm::Ptr<OstraStatusInfo> ostraStatusInfo_;
  const Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable_;
  const Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable_;

  bool initialized_ = false;
  Korm::HashMap<Korm::Name, StatsReactor<FlowStats>> flowReactors_;
  Korm::HashMap<GroupId, StatsReactor<GroupStats>> groupReactors_;
  Korm::MemberNotifiee<OstraStatusSm, &OstraStatusSm::handleFlowStats, const Korm::Name&>
      flowStatsReactor_;
  Korm::MemberNotifiee<OstraStatusSm, &OstraStatusSm::handleGroupStats, const GroupId&>
      groupStatsReactor_;
};

// Keeps one OstraStatusSm alive for the hardware status named "p4rt" of a directory, as long as there is
// one.
class OstraStatusDirSm final : public Korm::Entity {
 public:
  // Looks at all entities of the directory. `cxStatusDir` is not null, any other input may be.
  OstraStatusDirSm(Korm::Ptr<const Korm::Dir> cxStatusDir,
                   Korm::Ptr<P4Runtime::BatchStatus> batchStatus,
                   Korm::Ptr<OstraStatusInfo> ostraStatusInfo,
                   Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable,
                   Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable);

  [[nodiscard]] const Korm::Ptr<const Korm::Dir>& cxStatusDir() const noexcept {
    return cxStatusDir_;
  }
  [[nodiscard]] const Korm::Ptr<P4Runtime::BatchStatus>& batchStatus() const noexcept {
    return batchStatus_;
  }
  [[nodiscard]] const Korm::Ptr<OstraStatusInfo>& ostraStatusInfo() const noexcept {
    return ostraStatusInfo_;
  }
  [[nodiscard]] const Korm::Ptr<P4RuntimeRouting::EcmpGroup>& p4rtEcmpGroupTable() const noexcept {
    return p4rtEcmpGroupTable_;
  }
  [[nodiscard]] const Korm::Ptr<P4RuntimeRouting::EcmpMember>& p4rtEcmpMemberTable()
      const noexcept {
    return p4rtEcmpMemberTable_;
  }
  [[nodiscard]] bool initialized() const noexcept { return initialized_; }

  // The start-up pass over the directory.
  void handleInitialized();
  // Brings the status state machine in line with the entity of that name; any name but "p4rt" is ignored.
  void handleStatusDir(const Korm::Name& name);
  // The same for every entity of the directory.
  void handleStatusDir();

  // The status state machine, or null.
  [[nodiscard]] const Korm::Ptr<OstraStatusSm>& p4RtCxStatusSm() const noexcept {
    return p4RtCxStatusSm_;
  }
  // Keeps the one whose inputs are these very objects, or makes one and lets go of the old; returns the
  // one there is then.
  Korm::Ptr<OstraStatusSm> p4RtCxStatusSmIs(
      const Korm::Ptr<const OpenFlowTable::HwStatus>& hwStatus,
      const Korm::Ptr<P4Runtime::BatchStatus>& batchStatus,
      const Korm::Ptr<OstraStatusInfo>& ostraStatusInfo,
      const Korm::Ptr<P4RuntimeRouting::EcmpGroup>& p4rtEcmpGroupTable,
      const Korm::Ptr<P4RuntimeRouting::EcmpMember>& p4rtEcmpMemberTable);
  // Switches it off and lets go of it.
  void p4RtCxStatusSmDel();

 private:
  void onNotificationActive(bool active) override;
  void handleDirectory(const Korm::Name& name);

  // Inputs, constant after construction.
  const Korm::Ptr<const Korm::Dir> cxStatusDir_;
  const Korm::Ptr<P4Runtime::BatchStatus> batchStatus_;
  const Korm::Ptr<OstraStatusInfo> ostraStatusInfo_;
  const Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable_;
  const Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable_;

  bool initialized_ = false;
  Korm::Ptr<OstraStatusSm> p4RtCxStatusSm_;
  Korm::MemberNotifiee<OstraStatusDirSm, &OstraStatusDirSm::handleDirectory, const Korm::Name&>
      directoryReactor_;
};

// New state machines, their start-up pass done, with their notifications on.
[[nodiscard]] Korm::Ptr<OstraStatusSm> ostraStatusSmFactory(
    Korm::Ptr<const OpenFlowTable::HwStatus> cxHwStatus,
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus, Korm::Ptr<OstraStatusInfo> ostraStatusInfo,
    Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable,
    Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable);
[[nodiscard]] Korm::Ptr<OstraStatusDirSm> ostraStatusDirSmFactory(
    Korm::Ptr<const Korm::Dir> cxStatusDir, Korm::Ptr<P4Runtime::BatchStatus> batchStatus,
    Korm::Ptr<OstraStatusInfo> ostraStatusInfo,
    Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable,
    Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable);

}  // namespace Ostra
