// One update of a Write on its way: what it was before, and what is to be written to the switch to
// make it and to undo it. The store already holds what it is meant to become.
//
// A one shot takes stages: its hidden members and their group before the flow that uses them, and
// those that a flow no longer uses after it.
//
// Thread and process rule: the activity thread.
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
  std::optional<FlowEntry> former{};  // of a modify or delete
  bool keepsOneShot = false;          // of a modify without an action
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

  // In the order of the variant.
  [[nodiscard]] Sim::Kind kind() const noexcept { return static_cast<Sim::Kind>(what.index()); }
};

// The rows that entries stand for.
[[nodiscard]] Ostra::OstraConfigEntry rowOf(const Ostra::OstraKey& key, const FlowEntry& entry);
[[nodiscard]] P4RuntimeRouting::NexthopInfo rowOf(Id id, const MemberEntry& entry);
[[nodiscard]] P4RuntimeRouting::EcmpMemberList rowOf(Id id, const GroupEntry& entry);

// Whether it has stages beside the main one.
[[nodiscard]] bool hasHiddenRows(const Change& change, Store& store);

using Writes = std::vector<Sim::Update>;

// Appends what a stage writes to the switch.
void appendWrites(const Change& change, Stage stage, Store& store, Writes& writes);
// Appends what undoes it. `refused`: the switch has not taken the main write, though the row is
// stored.
void appendUndo(const Change& change, Stage stage, bool refused, Store& store, Writes& writes);

// Marks the entry as written by this run. False, with the mark left alone, if the run has written
// it before.
bool markRun(const Change& change, std::uint32_t run, Store& store);
// The row of the entry has this handle from now on.
void handleIs(const Change& change, P4Runtime::EntryHandle handle, Store& store);
// Appends what removes the row that an undone delete has written again and the switch has refused.
void appendRemoval(const Change& change, Writes& writes);
// Ends the use of the hidden ids of what a change has replaced.
void giveOldHidden(const Change& change, Store& store);
// Puts the store back to what it held before, with the row under `handle` if it has been written
// again.
void revert(Change& change, P4Runtime::EntryHandle handle, Store& store);
// Takes out what the store holds for it, if anything.
void drop(const Change& change, Store& store);

}  // namespace P4rt
