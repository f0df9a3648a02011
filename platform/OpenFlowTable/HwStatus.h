// The hardware status of the static-flow feature: what the hardware says of flows and groups.
// For the activity thread. The status owns its statistics; a reference to one is valid until that
// element is deleted.
#pragma once

#include "platform/Korm/Attribute.h"
#include "platform/Korm/Collection.h"
#include "platform/Korm/Entity.h"
#include "platform/OpenFlowTable/Types.h"

namespace OpenFlowTable {

// What the hardware says of one flow. The status and the change count notify separately. The change
// count notifies even when it is set to the value that it has.
class FlowStats {
 public:
  explicit FlowStats(Korm::Name name, FlowStatus status)
      : name_{std::move(name)}, status_{status} {}

  [[nodiscard]] const Korm::Name& name() const noexcept { return name_; }
  [[nodiscard]] FlowStatus status() const noexcept { return status_(); }
  [[nodiscard]] double changeCount() const noexcept { return changeCount_(); }
  [[nodiscard]] std::uint64_t packets() const noexcept { return packets_; }
  [[nodiscard]] std::uint64_t bytes() const noexcept { return bytes_; }

  void statusIs(FlowStatus status) { status_.is(status); }
  void changeCountIs(double count) { changeCount_.setAndNotify(count); }
  // Counters notify nobody.
  void countersIs(std::uint64_t packets, std::uint64_t bytes) noexcept {
    packets_ = packets;
    bytes_ = bytes;
  }

  [[nodiscard]] Korm::NotifieeList<>& statusNotifiees() const noexcept {
    return status_.notifiees();
  }
  [[nodiscard]] Korm::NotifieeList<>& changeCountNotifiees() const noexcept {
    return changeCount_.notifiees();
  }

 private:
  const Korm::Name name_;
  Korm::Attribute<FlowStatus> status_;
  Korm::Attribute<double> changeCount_;
  std::uint64_t packets_ = 0;
  std::uint64_t bytes_ = 0;
};

// What the hardware says of one group.
class GroupStats {
 public:
  GroupStats(GroupId id, GroupStatus status) : id_{id}, status_{status} {}

  [[nodiscard]] GroupId id() const noexcept { return id_; }
  [[nodiscard]] GroupStatus status() const noexcept { return status_(); }
  [[nodiscard]] double changeCount() const noexcept { return changeCount_(); }

  void statusIs(GroupStatus status) { status_.is(status); }
  void changeCountIs(double count) { changeCount_.setAndNotify(count); }

  [[nodiscard]] Korm::NotifieeList<>& statusNotifiees() const noexcept {
    return status_.notifiees();
  }
  [[nodiscard]] Korm::NotifieeList<>& changeCountNotifiees() const noexcept {
    return changeCount_.notifiees();
  }

 private:
  const GroupId id_;
  Korm::Attribute<GroupStatus> status_;
  Korm::Attribute<double> changeCount_;
};

// The status that one hardware unit, or one writer's agent, publishes.
class HwStatus final : public Korm::NamedEntity {
 public:
  static constexpr const char* typeName = "OpenFlowTable::HwStatus";
  using Flows = Korm::HashMap<Korm::Name, FlowStats>;
  using Groups = Korm::HashMap<GroupId, GroupStats>;

  using NamedEntity::NamedEntity;

  // The statistics of a flow. If they are missing they are created with `status`, and the reactors
  // are notified of the name; otherwise they stay as they are. The reference returned is invalid if
  // a reactor has deleted the statistics.
  FlowStats& flowStatsIs(const Korm::HashedName& name, FlowStatus status = FlowStatus::pending_);
  bool flowStatsDel(const Korm::HashedName& name) { return flows_.erase(name.text(), name.hash()); }
  [[nodiscard]] const FlowStats* flowStats(const Korm::HashedName& name) const noexcept {
    return flows_.find(name.text(), name.hash());
  }
  [[nodiscard]] FlowStats* flowStats(const Korm::HashedName& name) noexcept {
    return flows_.find(name.text(), name.hash());
  }
  [[nodiscard]] const Flows& flowStats() const noexcept { return flows_.map(); }
  [[nodiscard]] Korm::NotifieeList<const Korm::Name&>& flowStatsNotifiees() const noexcept {
    return flows_.notifiees();
  }

  GroupStats& groupStatsIs(GroupId id, GroupStatus status = GroupStatus::ready_);
  bool groupStatsDel(GroupId id) { return groups_.erase(id); }
  [[nodiscard]] const GroupStats* groupStats(GroupId id) const noexcept { return groups_.find(id); }
  [[nodiscard]] GroupStats* groupStats(GroupId id) noexcept {
    return groups_.find(id, Groups::hash(id));
  }
  [[nodiscard]] const Groups& groupStats() const noexcept { return groups_.map(); }
  [[nodiscard]] Korm::NotifieeList<const GroupId&>& groupStatsNotifiees() const noexcept {
    return groups_.notifiees();
  }

 private:
  Korm::Collection<Korm::Name, FlowStats> flows_;
  Korm::Collection<GroupId, GroupStats> groups_;
};

}  // namespace OpenFlowTable
