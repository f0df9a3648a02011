// What controllers have written: the table entries, and the members and groups of the action
// profile, each with the handle of its row in the switch.
//
// References are counted: an entry uses its member or group, and a group uses its members. In the
// switch a one shot is a hidden group with hidden members. They belong to the entry, and are not
// among the members and groups here.
//
// Threads: the activity thread.
// Ownership: the store points into the pipeline, which outlives it. An entity stays at its address
// until it is taken.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Ostra/OstraTypes.h"
#include "p4rt/core/Translation.h"
#include "platform/Korm/HashMap.h"
#include "platform/P4Runtime/Types.h"
#include "sim/TablePaths.h"
#include "sim/Writes.h"

namespace P4rt {

using Id = P4Runtime::MemberOrGroupId;

// The action set of an entry (P4Runtime 1.4.1, 9.2.3).
struct OneShot {
  struct Action {
    PackedAction action;
    std::int32_t weight;
    Id member;  // the hidden member
  };
  std::vector<Action> actions;
  Id group = 0;  // the hidden group
};

struct FlowEntry {
  enum class Kind : std::uint8_t { direct_, member_, group_, oneShot_ };

  P4Runtime::EntryHandle handle;
  PackedAction action{};  // if direct_
  Kind kind = Kind::direct_;
  // The member and group that the entry uses, 0 for none. The action of a direct entry may name
  // one too.
  Id member = 0;
  Id group = 0;
  std::unique_ptr<OneShot> oneShot{};
  std::string metadata{};
  std::uint64_t controllerMetadata = 0;
  std::uint32_t run = 0;   // the last run that has changed it (Batch.h)
  std::uint64_t kept = 0;  // the number under which it is kept (Keeper.h); 0 when it is not kept
};

struct MemberEntry {
  P4Runtime::EntryHandle handle;
  PackedAction action{};
  std::uint32_t users = 0;  // the groups and entries that use it
  std::uint32_t run = 0;
};

struct GroupEntry {
  struct Member {
    Id id;
    std::int32_t weight;
  };
  P4Runtime::EntryHandle handle;
  std::vector<Member> members{};
  std::int32_t maxSize = 0;
  std::uint32_t users = 0;  // the entries that use it
  std::uint32_t run = 0;
};

class Store {
 public:
  using Flows = Korm::HashMap<Ostra::OstraKey, FlowEntry>;
  using Members = Korm::HashMap<Id, MemberEntry>;
  using Groups = Korm::HashMap<Id, GroupEntry>;

  Store() = default;
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  [[nodiscard]] const Flows& flows(const TableInfo& table) const { return flows_[table.index]; }
  [[nodiscard]] const Members& members() const noexcept { return members_; }
  [[nodiscard]] const Groups& groups() const noexcept { return groups_; }

  // Null when it is not stored.
  [[nodiscard]] FlowEntry* flow(const TableInfo& table, const Ostra::OstraKey& key);
  [[nodiscard]] MemberEntry* member(Id id);
  [[nodiscard]] GroupEntry* group(Id id);

  // Adds an entity and returns the stored one. It is counted as a user of the entities it uses.
  // Requires: no such entity is stored, and the entities that it uses are.
  FlowEntry& put(const TableInfo& table, const Ostra::OstraKey& key, FlowEntry&& entry);
  MemberEntry& put(Id id, MemberEntry&& entry);
  GroupEntry& put(Id id, GroupEntry&& entry);
  // Removes an entity and returns it. It is no longer counted as a user.
  // Requires: it is stored, which is asserted.
  FlowEntry takeFlow(const TableInfo& table, const Ostra::OstraKey& key);
  MemberEntry takeMember(Id id);
  GroupEntry takeGroup(Id id);

  [[nodiscard]] std::size_t oneShots() const noexcept { return oneShots_; }
  // The number of members in all groups and one shots, and the sum of their weights.
  [[nodiscard]] std::int64_t groupMembers() const noexcept { return groupMembers_; }
  [[nodiscard]] std::int64_t groupWeights() const noexcept { return groupWeights_; }

  // The hidden ids, from firstHidden on: for the member rows and the group row of a one shot.
  // takeHidden() returns one that is not in use; releaseHidden() makes it available again.
  static constexpr Id firstHidden = 0x80000000U;
  [[nodiscard]] Id takeHidden();
  void releaseHidden(Id id) { freeHidden_.push_back(id); }

  // Records that the id is in use. takeHidden() will only return greater ids, or released ones.
  void hiddenTaken(Id id) noexcept { nextHidden_ = std::max(nextHidden_, id + 1); }

  // Takes over the state of the hidden ids from the store that this one replaces.
  void adoptHidden(const Store& before) {
    nextHidden_ = before.nextHidden_;
    freeHidden_ = before.freeHidden_;
  }

  // A new number for a run of a batch.
  [[nodiscard]] std::uint32_t nextRun() noexcept { return ++run_; }

  // Asserts that the reference counts and oneShots() are right.
  void verify() const;

 private:
  void count(const FlowEntry& entry, int by);
  void count(const GroupEntry& entry, int by);

  std::array<Flows, Sim::flowTables> flows_;
  Members members_;
  Groups groups_;
  std::size_t oneShots_ = 0;
  std::int64_t groupMembers_ = 0;
  std::int64_t groupWeights_ = 0;
  Id nextHidden_ = firstHidden;
  std::vector<Id> freeHidden_;
  std::uint32_t run_ = 0;
};

}  // namespace P4rt
