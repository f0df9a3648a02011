// The hardware configuration of the static-flow feature: what its writers want programmed. For the
// activity thread. The configuration owns its entries; a reference to an entry is valid until the
// entry is deleted.
#pragma once

#include <vector>

#include "platform/Korm/Attribute.h"
#include "platform/Korm/Collection.h"
#include "platform/Korm/Entity.h"
#include "platform/OpenFlowTable/Actions.h"
#include "platform/OpenFlowTable/Match.h"

namespace OpenFlowTable {

// One static flow.
class FlowEntry {
 public:
  [[nodiscard]] const Match& match() const noexcept { return match_; }
  [[nodiscard]] const Actions& actions() const noexcept { return actions_; }
  [[nodiscard]] Priority priority() const noexcept { return priority_; }
  [[nodiscard]] PriorityGroupType priorityGroupType() const noexcept { return priorityGroupType_; }
  [[nodiscard]] TableType tableType() const noexcept { return tableType_; }
  [[nodiscard]] std::uint64_t cookie() const noexcept { return cookie_; }
  [[nodiscard]] double idleTimeout() const noexcept { return idleTimeout_; }
  [[nodiscard]] double hardTimeout() const noexcept { return hardTimeout_; }
  [[nodiscard]] bool sendFlowRemoved() const noexcept { return sendFlowRemoved_; }
  [[nodiscard]] bool persistent() const noexcept { return persistent_; }
  // The service's id of the entry that this flow carries.
  [[nodiscard]] std::uint32_t entryId() const noexcept { return entryId_; }
  // Seconds since the epoch of the last modification, 0 for none.
  [[nodiscard]] double changeCount() const noexcept { return changeCount_; }

  // Set after a flowEntryIs(), which notifies the reactors. These two notify nobody.
  void entryIdIs(std::uint32_t id) noexcept { entryId_ = id; }
  void changeCountIs(double count) noexcept { changeCount_ = count; }

 private:
  friend class FlowHwConfig;

  Match match_;
  Actions actions_;
  std::uint64_t cookie_ = 0;
  double idleTimeout_ = 0;
  double hardTimeout_ = 0;
  double changeCount_ = 0;
  Priority priority_;
  PriorityGroupType priorityGroupType_ = 0;
  TableType tableType_{};
  std::uint32_t entryId_ = 0;
  bool sendFlowRemoved_ = false;
  bool persistent_ = false;
};

// One bucket of a group.
struct Bucket {
  Actions actions;
  friend bool operator==(const Bucket&, const Bucket&) noexcept = default;
};

class FlowHwConfig;

// One group. A writer changes its attributes and then its change count, which notifies the reactors
// on groups.
class GroupEntry {
 public:
  GroupEntry(FlowHwConfig& config, GroupId id) : config_{config}, id_{id} {}

  [[nodiscard]] GroupId id() const noexcept { return id_; }
  [[nodiscard]] GroupType groupType() const noexcept { return groupType_; }
  [[nodiscard]] bool deleted() const noexcept { return deleted_; }
  [[nodiscard]] bool ready() const noexcept { return ready_; }
  [[nodiscard]] double changeCount() const noexcept { return changeCount_; }
  [[nodiscard]] std::size_t buckets() const noexcept { return buckets_.size(); }
  [[nodiscard]] const std::vector<Bucket>& bucket() const noexcept { return buckets_; }

  void groupTypeIs(GroupType type) noexcept { groupType_ = type; }
  // Keeps the memory for the next buckets.
  void bucketDelAll() noexcept { buckets_.clear(); }
  // Appends a copy.
  void bucketEnq(const Bucket& bucket) { buckets_.push_back(bucket); }
  void bucketReserve(std::size_t count) { buckets_.reserve(count); }
  void deletedIs(bool deleted) noexcept { deleted_ = deleted; }
  void readyIs(bool ready) noexcept { ready_ = ready; }
  // Seconds since the epoch. Set last: notifies the reactors on groups.
  void changeCountIs(double count);

 private:
  FlowHwConfig& config_;
  const GroupId id_;
  std::vector<Bucket> buckets_;
  double changeCount_ = 0;
  GroupType groupType_ = GroupType::all_;
  bool deleted_ = false;
  bool ready_ = false;
};

class FlowHwConfig : public Korm::NamedEntity {
 public:
  using Flows = Korm::HashMap<Korm::Name, FlowEntry>;
  using Groups = Korm::HashMap<GroupId, GroupEntry>;

  using NamedEntity::NamedEntity;

  // Creates the flow or replaces all of its contents, and notifies the reactors of its name. A new
  // flow's entry id and change count are 0; a replaced flow keeps them. The reference returned is
  // invalid if a reactor has deleted the flow.
  //
  // `cookie` is opaque to the switch. The timeouts are the seconds without traffic, and since the
  // write, after which the hardware removes the flow; 0 means never. `sendFlowRemoved` requests a
  // message when it does. `persistent` keeps the flow when its writer restarts.
  FlowEntry& flowEntryIs(const Korm::HashedName& name, const Match& match, const Actions& actions,
                         Priority priority, PriorityGroupType priorityGroupType,
                         TableType tableType, std::uint64_t cookie, double idleTimeout,
                         double hardTimeout, bool sendFlowRemoved, bool persistent);
  // Removes the flow; false when there is none, and then nobody is notified.
  bool flowEntryDel(const Korm::HashedName& name) { return flows_.erase(name.text(), name.hash()); }
  [[nodiscard]] const FlowEntry* flowEntry(const Korm::HashedName& name) const noexcept {
    return flows_.find(name.text(), name.hash());
  }
  // Entries {key, value}. An iterator stays valid when its flow is deleted.
  [[nodiscard]] const Flows& flowEntries() const noexcept { return flows_.map(); }
  [[nodiscard]] Korm::NotifieeList<const Korm::Name&>& flowEntryNotifiees() const noexcept {
    return flows_.notifiees();
  }

  // The group, which is created if it is missing; the reactors are notified of a creation. The
  // reference returned is invalid if a reactor has deleted the group.
  GroupEntry& groupEntryIs(GroupId id);
  bool groupEntryDel(GroupId id) { return groups_.erase(id); }
  [[nodiscard]] const GroupEntry* groupEntry(GroupId id) const noexcept { return groups_.find(id); }
  [[nodiscard]] GroupEntry* groupEntry(GroupId id) noexcept {
    return groups_.find(id, Groups::hash(id));
  }
  [[nodiscard]] const Groups& groupEntries() const noexcept { return groups_.map(); }
  // Notified when a group is created or deleted, and when its change count is set.
  [[nodiscard]] Korm::NotifieeList<const GroupId&>& groupEntryNotifiees() const noexcept {
    return groups_.notifiees();
  }

 private:
  Korm::Collection<Korm::Name, FlowEntry> flows_;
  Korm::Collection<GroupId, GroupEntry> groups_;
};

// The configuration of the Corvex feature.
class CorvexHwConfig final : public FlowHwConfig {
 public:
  static constexpr const char* typeName = "OpenFlowTable::CorvexHwConfig";

  using FlowHwConfig::FlowHwConfig;

  // Whether the hardware agent reads the flows' counters. Off at first.
  [[nodiscard]] bool counterPollEnable() const noexcept { return counterPollEnable_(); }
  void counterPollEnableIs(bool enable) { counterPollEnable_.is(enable); }
  [[nodiscard]] Korm::NotifieeList<>& counterPollEnableNotifiees() const noexcept {
    return counterPollEnable_.notifiees();
  }

 private:
  Korm::Attribute<bool> counterPollEnable_;
};

}  // namespace OpenFlowTable
