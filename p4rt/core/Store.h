// What the controller has written: entries of the tables, members and groups of the action profile,
// each with the handle of its row in the switch.
//
// References are counted: an entry uses its member or group, a group its members. The members and
// the group that stand for a one shot in the switch are the entry's own and appear nowhere else
// here.
//
// Thread and process rule: the activity thread.
// Ownership: points into the pipeline, which outlives it. What is found stays in place until it is
// taken.
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

// An action set that an entry brings along.
struct OneShot {
  struct Action {
    PackedAction action;
    std::int32_t weight;
    Id member;  // in the switch
  };
  std::vector<Action> actions;
  Id group = 0;  // in the switch
};

struct FlowEntry {
  enum class Kind : std::uint8_t { direct_, member_, group_, oneShot_ };

  P4Runtime::EntryHandle handle;
  PackedAction action{};  // of a direct one
  Kind kind = Kind::direct_;
  Id member = 0;  // that it uses, 0 for none; also of a direct one whose action names one
  Id group = 0;   // the same
  std::unique_ptr<OneShot> oneShot{};
  std::string metadata{};
  std::uint64_t controllerMetadata = 0;
  std::uint32_t run = 0;   // of the batch under way that has written it last
  std::uint64_t kept = 0;  // the number under which it is kept; 0 while it is not
};

struct MemberEntry {
  P4Runtime::EntryHandle handle;
  PackedAction action{};
  std::uint32_t users = 0;  // groups and entries
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
  std::uint32_t users = 0;  // entries
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

  // Null when there is none.
  [[nodiscard]] FlowEntry* flow(const TableInfo& table, const Ostra::OstraKey& key);
  [[nodiscard]] MemberEntry* member(Id id);
  [[nodiscard]] GroupEntry* group(Id id);

  // Each adds one that is not there, and counts what it uses, which is there. Returns it in its
  // place.
  FlowEntry& put(const TableInfo& table, const Ostra::OstraKey& key, FlowEntry&& entry);
  MemberEntry& put(Id id, MemberEntry&& entry);
  GroupEntry& put(Id id, GroupEntry&& entry);
  // Each takes out one that is there.
  FlowEntry takeFlow(const TableInfo& table, const Ostra::OstraKey& key);
  MemberEntry takeMember(Id id);
  GroupEntry takeGroup(Id id);

  [[nodiscard]] std::size_t oneShots() const noexcept { return oneShots_; }
  // Entries whose action is a member or a group.
  [[nodiscard]] std::size_t indirectFlows() const noexcept { return indirectFlows_; }
  // Of all groups, one shots too: the members, and the sum of their weights.
  [[nodiscard]] std::int64_t groupMembers() const noexcept { return groupMembers_; }
  [[nodiscard]] std::int64_t groupWeights() const noexcept { return groupWeights_; }

  // Ids in the switch for a one shot, from firstHidden on, none of which is in use.
  static constexpr Id firstHidden = 0x80000000U;
  [[nodiscard]] Id takeHidden();
  void giveHidden(Id id) { freeHidden_.push_back(id); }

  // This one is in use, and so may be any before it.
  void hiddenTaken(Id id) noexcept { nextHidden_ = std::max(nextHidden_, id + 1); }

  // Those of this store become those of `before`, which it takes the place of.
  void adoptHidden(const Store& before) {
    nextHidden_ = before.nextHidden_;
    freeHidden_ = before.freeHidden_;
  }

  // A number that no run of a batch has had.
  [[nodiscard]] std::uint32_t nextRun() noexcept { return ++run_; }

  // Asserts that the counts are right.
  void verify() const;

 private:
  void count(const FlowEntry& entry, int by);
  void count(const GroupEntry& entry, int by);

  std::array<Flows, Sim::flowTables> flows_;
  Members members_;
  Groups groups_;
  std::size_t oneShots_ = 0;
  std::size_t indirectFlows_ = 0;
  std::int64_t groupMembers_ = 0;
  std::int64_t groupWeights_ = 0;
  Id nextHidden_ = firstHidden;
  std::vector<Id> freeHidden_;
  std::uint32_t run_ = 0;
};

}  // namespace P4rt
