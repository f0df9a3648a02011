// One update of a Write while it is carried out. A change holds the entity as it was before the
// update; the store already holds it as it will be. From both come the writes that make the change
// in the switch, and those that undo it.
//
// A flow with a one shot needs hidden rows in the switch: a member for each action, and a group of
// them. The new ones are written before the flow that uses them, and the old ones are deleted after
// it. So a change is written in up to five stages.
//
// Threads: the activity thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <variant>
#include <vector>

#include "p4rt/core/Store.h"
#include "sim/Writes.h"

namespace P4rt {

enum class Stage : std::uint8_t { newMembers_, newGroup_, main_, oldGroup_, oldMembers_ };
inline constexpr std::array stages{Stage::newMembers_, Stage::newGroup_, Stage::main_,
                                   Stage::oldGroup_, Stage::oldMembers_};

struct FlowChange {
  const TableInfo* table;
  Ostra::OstraKey key;
  std::optional<FlowEntry> former{};  // for a modify or delete
  bool keepsOneShot = false;          // a modify without an action, which keeps the one shot
};
struct MemberChange {
  Id id;
  std::optional<MemberEntry> former{};
};
struct GroupChange {
  Id id;
  std::optional<GroupEntry> former{};
};

struct Change {
  Sim::Op op;
  std::variant<FlowChange, MemberChange, GroupChange> what;

  // The alternatives of the variant are in the order of Sim::Kind.
  [[nodiscard]] Sim::Kind kind() const noexcept { return static_cast<Sim::Kind>(what.index()); }
};

// The rows that the switch stores for an entry, a member and a group.
[[nodiscard]] Ostra::OstraConfigEntry rowOf(const Ostra::OstraKey& key, const FlowEntry& entry);
[[nodiscard]] P4RuntimeRouting::NexthopInfo rowOf(Id id, const MemberEntry& entry);
[[nodiscard]] P4RuntimeRouting::EcmpMemberList rowOf(Id id, const GroupEntry& entry);

// Whether the change has writes in other stages than the main one.
[[nodiscard]] bool hasHiddenRows(const Change& change, Store& store);

using Writes = std::vector<Sim::Update>;

// Appends the writes of a stage.
void appendWrites(const Change& change, Stage stage, Store& store, Writes& writes);
// Appends the writes that undo a stage. `refused`: the main write failed, although its row is
// stored.
void appendUndo(const Change& change, Stage stage, bool refused, Store& store, Writes& writes);

// Whether the store holds the entity.
[[nodiscard]] bool isStored(const Change& change, Store& store);
// Marks the entity as changed by this run. Returns false, and marks nothing, if the run has already
// changed it.
bool markRun(const Change& change, std::uint32_t run, Store& store);
// Sets the handle of the entity's row.
void handleIs(const Change& change, P4Runtime::EntryHandle handle, Store& store);
// Appends the writes that remove a row which was written to undo a delete, and was refused, and its
// one shot.
void appendRemoval(const Change& change, Store& store, Writes& writes);
// Releases the hidden ids of the one shot that the change has replaced or deleted.
// Requires: the change will not be undone, or the switch refused to restore what was there.
void releaseOldHidden(const Change& change, Store& store);
// Reverts the change in the store. `handle` is the handle of the row that was written again, or 0
// if the row has kept its own.
void revert(Change& change, P4Runtime::EntryHandle handle, Store& store);
// Removes the entity from the store, if it is there.
void drop(const Change& change, Store& store);

}  // namespace P4rt
